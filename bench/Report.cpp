#include "Report.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <iostream>
#include <sstream>

namespace {

constexpr std::string_view kOver = " over ";

std::string Rounded(double value, const char* unit) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(value < 10 ? 2 : value < 100 ? 1 : 0) << value << unit;
    return text.str();
}

std::string Time(double seconds) {
    if (seconds < 1e-6) {
        return Rounded(seconds * 1e9, " ns");
    }
    return seconds < 1e-3 ? Rounded(seconds * 1e6, " us") : Rounded(seconds * 1e3, " ms");
}

std::string Shown(double value, Quantity quantity) {
    switch (quantity) {
        case Quantity::Time:
            return Time(value);
        case Quantity::Rate:
            return Rounded(1e-3 / value, " k/s");
        case Quantity::Factor:
            return Rounded(value, " x");
        case Quantity::Megabytes:
            return Rounded(value / 1e6, " MB");
        case Quantity::Count:
            break;
    }
    std::ostringstream text;
    text << value;
    return text.str();
}

std::string CounterName(const std::string& benchmark, const std::string& counter) {
    return std::string(benchmark).append("#").append(counter);
}

using Cells = std::array<std::string, 6>;

void PrintTable(std::ostream& out, const std::vector<Cells>& lines) {
    std::array<std::size_t, std::tuple_size_v<Cells>> widths{};
    for (const Cells& cells : lines) {
        for (std::size_t column = 0; column < cells.size(); ++column) {
            widths[column] = std::max(widths[column], cells[column].size());
        }
    }
    for (const Cells& cells : lines) {
        for (std::size_t column = 0; column < cells.size(); ++column) {
            out << (column == 0 ? "| " : " | ") << std::left << std::setw(static_cast<int>(widths[column]))
                << cells[column];
        }
        out << " |\n";
    }
}

Cells LineOf(const Row& row, double measured, std::optional<double> limit) {
    const double judged = limit ? measured / *limit : measured;
    Cells cells{row.work, Shown(measured, row.quantity), limit ? Shown(*limit, row.quantity) : "-",
                limit ? Rounded(judged, " x") : "-"};
    if (row.goal != kNoGoal) {
        cells[4] = limit ? Rounded(row.goal, " x") : Shown(row.goal, row.quantity);
        cells[5] = judged <= row.goal ? "met" : "missed";
    }
    return cells;
}

}  // namespace

bool Report::ReportContext(const Context& context) {
    PrintBasicContext(&std::cerr, context);
    return true;
}

void Report::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        const std::string& name = run.run_name.function_name;
        if (run.error_occurred) {
            std::cerr << name << " could not be measured: " << run.error_message << '\n';
            m_complete = false;
        } else if (run.run_type == Run::RT_Iteration) {
            for (const auto& [counter, value] : run.counters) {
                const bool speed = counter == "items_per_second";
                m_values[speed ? name : CounterName(name, counter)].push_back(speed ? 1 / value : value.value);
            }
        }
    }
    if (!runs.empty() && runs.front().run_type == Run::RT_Iteration) {
        std::cerr << "measured " << runs.front().run_name.function_name << '\n';
    }
}

std::optional<double> Report::Value(const std::string& name) const {
    if (const std::size_t split = name.find(kOver); split != std::string::npos) {
        const auto value = Value(name.substr(0, split));
        const auto base = Value(name.substr(split + kOver.size()));
        return value && base ? std::optional(*value / *base) : std::nullopt;
    }
    const auto found = m_values.find(name);
    if (found == m_values.end()) {
        return std::nullopt;
    }
    std::vector<double> values = found->second;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void Report::Print(std::ostream& out) const {
    std::vector<Cells> lines{{"work", "measured", "limit", "ratio", "at most", "goal"}};
    for (const Row& row : m_rows) {
        const auto measured = Value(row.measured);
        const auto limit = Value(row.limit);
        if (measured && (limit || row.limit.empty())) {
            lines.push_back(LineOf(row, *measured, limit));
        }
    }
    PrintTable(out, lines);
}
