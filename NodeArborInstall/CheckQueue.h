#pragma once

#include <functional>
#include <future>
#include <memory>
#include <mutex>

/// Runs checks of package files, a few at once, in the order in which they were added. Thread-safe. Its end waits for
/// all that was added.
class CheckQueue {
public:
    CheckQueue();
    ~CheckQueue();
    CheckQueue(const CheckQueue&) = delete;
    CheckQueue& operator=(const CheckQueue&) = delete;

    /// What `check` returns, or throws, comes out of the future.
    std::future<bool> Add(std::function<bool()> check);

private:
    struct Threads;
    std::once_flag m_started;
    std::unique_ptr<Threads> m_threads;  // from the first check on
};
