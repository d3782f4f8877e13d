#include "Table.h"

#include <algorithm>
#include <cstddef>

#include "TextFormat.h"

namespace arborctl {
namespace {

constexpr std::size_t kGap = 2;

}  // namespace

Table::Table(std::vector<std::string> header) {
    if (!header.empty()) {
        m_rows.push_back(std::move(header));
    }
}

void Table::AddRow(const std::vector<std::string>& cells) {
    auto& row = m_rows.emplace_back();
    std::transform(cells.begin(), cells.end(), std::back_inserter(row), Escaped);
}

std::string Table::Text() const {
    std::vector<std::size_t> widths;
    for (const auto& row : m_rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], DisplayWidth(row[column]));
        }
    }
    std::string text;
    for (const auto& row : m_rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column] + std::string(widths[column] + kGap - DisplayWidth(row[column]), ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

}  // namespace arborctl
