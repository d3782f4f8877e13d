#pragma once

#include <chrono>
#include <optional>
#include <string>

/// A command as a unit of its own of the service manager, outside of what this process is confined to. What it may use
/// is bounded for all of its processes together, and it lives on when this process is restarted.
class TransientUnit {
public:
    /// For the check of a package that takes no longer than `limit`. None where the graph does not ask for units, or no
    /// service manager runs; so are the others.
    static std::optional<TransientUnit> ForCheck(std::chrono::seconds limit);
    /// For the install that this operation is; always of the same name.
    static std::optional<TransientUnit> ForInstall(const std::string& operation);

    /// The shell command line that runs the command line `inside` in the unit, and ends as it does. There $1 is the
    /// process id of the one out here, which waits; standard output and error are those out here.
    std::string CommandLine(const std::string& inside) const;

    /// Sends a signal to all its processes. False when it does not run.
    bool Signal(int signal) const;
    /// Whether any of its processes runs still, as far as the service manager tells.
    bool IsActive() const;
    /// Ends it if it runs still, without waiting for that.
    void End() const;

private:
    TransientUnit(std::string name, std::string properties);

    std::string m_name;
    std::string m_properties;
};

/// A command line that keeps the device from being switched off by people while `inside` runs, where somebody can see
/// to that.
std::string Inhibiting(const std::string& why, const std::string& inside);
