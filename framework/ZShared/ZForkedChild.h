#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <utility>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"

/// Does in a child what may block for good where the caller must not, such as reading a drive that does not answer. One
/// thread.
class ZForkedChild {
public:
    /// What the child has of this process's descriptors, beside the standard ones.
    static constexpr int kReport = 3;
    static constexpr int kKept = 4;
    /// Descriptors that the child keeps, as kKept and the one after it; negative: none.
    using Kept = std::array<int, 2>;

    ZForkedChild() = default;
    ZForkedChild(ZForkedChild&& other) noexcept;
    /// Ends the one that this was.
    ZForkedChild& operator=(ZForkedChild&& other) noexcept;
    /// Ends one that was left to live.
    ~ZForkedChild();

    /// Runs `body` in the child. It reports an error number by writing an int to kReport, and may close it without one;
    /// it has those of `keep`. As after any fork of a process with threads, it may call only what is
    /// safe in a signal handler. `name` is what errors name.
    ZResult<void> Start(const std::string& name, const std::function<void()>& body, Kept keep = {-1, -1});

    /// What the child reported, 0 for nothing; an error when that takes longer than `limit`, or when the calling thread
    /// is to stop, after which the child is ended.
    ZResult<int> Report(std::chrono::milliseconds limit);

    /// What the child wrote behind its report, in the same write: more is not waited for, since another child that
    /// was forked meanwhile may hold the pipe open.
    std::string Rest() const;

    pid_t Id() const { return m_id; }
    /// For one that has reported, and so ends now.
    void Reap();
    /// It lives on without its owner, who reaps it.
    pid_t Release() { return std::exchange(m_id, -1); }

private:
    void End();

    pid_t m_id = -1;
    std::string m_name;
    ZFileDescriptor m_report;
};
