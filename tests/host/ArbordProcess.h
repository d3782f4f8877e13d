#pragma once

#include <csignal>
#include <optional>

#include "TestSupport.h"
#include "ZShared/ZFileDescriptor.h"

/// One run of the real arbord, with a service manager's notification socket. Ended, at the latest, with the object.
class ArbordProcess {
public:
    /// Its standard output and standard error go to the file or pipe `output`, or else to a file for Output.
    explicit ArbordProcess(std::vector<std::string> arguments, const std::filesystem::path& output = {});
    ~ArbordProcess();

    pid_t Id() const { return m_id; }
    void Signal(int signal) const { ::kill(m_id, signal); }
    /// Sends a signal and waits until the process has taken it.
    bool SignalAndWait(int signal) const;
    /// Waits for the end; the exit status as a shell shows it, or nothing when it did not end.
    std::optional<int> WaitForExit();
    bool WaitForOutput(const std::string& text) const;
    /// Waits for a notification that ends with `text`, after those that were waited for before.
    bool WaitForNotification(const std::string& text) const;
    /// All it has said on standard output and standard error.
    std::string Output() const { return ReadText(m_folder / "output"); }

private:
    TemporaryFolder m_folder;
    ZFileDescriptor m_notifications;
    pid_t m_id = -1;
    std::optional<int> m_exit;
};
