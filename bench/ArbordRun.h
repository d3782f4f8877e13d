#pragma once

#include <sys/types.h>

#include <chrono>

#include "Scratch.h"
#include "ZShared/ZFileDescriptor.h"

/// One run of the arbord beside this program, with all nodes, an empty archive and a service manager's notification
/// socket. Ended with the object.
class ArbordRun {
public:
    /// Returns when it is ready. Throws when it can't be started or ends or says nothing instead. `journal` is the
    /// journal's database; without one there is no journal.
    explicit ArbordRun(const std::filesystem::path& journal = {});
    ~ArbordRun();
    ArbordRun(const ArbordRun&) = delete;
    ArbordRun& operator=(const ArbordRun&) = delete;

    pid_t Process() const { return m_process; }
    /// The gateway's; it allows 1,000 event streams of one user.
    std::filesystem::path Socket() const { return m_scratch / "gateway.sock"; }
    /// From its start until it said that it is ready.
    std::chrono::duration<double> StartTime() const { return m_startTime; }

private:
    void OpenNotifications();
    void Spawn(const std::filesystem::path& journal);
    bool WaitForReady() const;
    void End();

    Scratch m_scratch;
    ZFileDescriptor m_notifications;
    ZFileDescriptor m_exit;
    pid_t m_process = -1;
    std::chrono::duration<double> m_startTime{};
};
