#pragma once

#include <string>
#include <vector>

namespace arborctl {

/// Rows of text with left-aligned columns, two blanks apart; cells are escaped when they are added.
class Table {
public:
    /// With an empty header only the rows are written.
    explicit Table(std::vector<std::string> header = {});

    void AddRow(const std::vector<std::string>& cells);

    /// All lines, each ended by a newline, without trailing blanks.
    [[nodiscard]] std::string Text() const;

private:
    std::vector<std::vector<std::string>> m_rows;
};

}  // namespace arborctl
