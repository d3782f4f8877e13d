#pragma once

#include <benchmark/benchmark.h>

#include <limits>
#include <map>
#include <optional>

/// How the values of a row are shown. Benchmarks tell their speed as items per second; times are those of one item.
enum class Quantity { Time, Rate, Factor, Megabytes, Count };

inline constexpr double kNoGoal = std::numeric_limits<double>::infinity();

/// One line of the table: a benchmark beside the limit that it is compared with.
struct Row {
    std::string work;
    /// A benchmark's name; with "#counter" behind it one of its counters; "a over b" is the quotient of two.
    std::string measured;
    std::string limit;  ///< likewise; empty: nothing to compare with
    Quantity quantity = Quantity::Time;
    double goal = kNoGoal;  ///< the largest ratio; without a limit the largest value, in seconds, bytes or pieces
};

/// Collects the benchmarks' results and prints the rows as one table. Used from one thread.
class Report : public benchmark::ConsoleReporter {
public:
    void Add(Row row) { m_rows.push_back(std::move(row)); }

    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;

    /// Prints the rows whose benchmarks ran; a repeated benchmark counts with its median.
    void Print(std::ostream& out) const;
    /// Whether every benchmark that ran gave a result.
    bool IsComplete() const { return m_complete; }

private:
    std::optional<double> Value(const std::string& name) const;

    std::vector<Row> m_rows;
    std::map<std::string, std::vector<double>> m_values;
    bool m_complete = true;
};
