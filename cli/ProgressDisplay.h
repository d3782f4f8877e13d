#pragma once

#include <boost/json.hpp>
#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

namespace arborctl {

/// One progress message as it is shown.
struct Progress {
    std::string header;
    std::string message;
    int percent = 0;       ///< 0 to 100.
    bool spinner = false;  ///< The percentage says nothing at present.
    bool error = false;
    bool done = false;

    /// From an InstallProgressMsg; texts are escaped, the percentage is brought into its range.
    static Progress From(const boost::json::value& message);

    bool operator==(const Progress&) const = default;
};

/// Shows progress: on a terminal as one line that is redrawn, with a bar, or a spinner that each message moves;
/// elsewhere as lines, one for each new stage and each further tenth. One thread.
class ProgressDisplay {
public:
    /// Asked for the terminal's width at each drawing; 0 means that the output is no terminal.
    using Columns = std::function<std::size_t()>;

    ProgressDisplay(std::ostream& out, Columns columns) : m_out(out), m_columns(std::move(columns)) {}
    /// Leaves the terminal's cursor on a line of its own.
    ~ProgressDisplay() { End(); }
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    void Show(const Progress& progress);
    /// What follows is written below. Show() may be called again.
    void End();

private:
    void ShowLine(const Progress& progress);
    void Draw(std::size_t columns);
    [[nodiscard]] bool IsNewStage(const Progress& progress) const;

    std::ostream& m_out;
    Columns m_columns;
    Progress m_last;
    bool m_shownAny = false;
    bool m_lineOpen = false;
    std::size_t m_frame = 0;
};

}  // namespace arborctl
