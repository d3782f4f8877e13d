#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

/// The bounded queue of one node: any thread posts, one thread takes. Priorities go first; equal ones in order.
class ZMailbox {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    explicit ZMailbox(std::size_t length);

    /// Queues a task, waiting for room until `deadline`, or until `givenUp` is true and WakePosters was called. False
    /// when there was none, or when the mailbox is closed.
    bool Post(Task task, Clock::time_point deadline, int priority = 0, const std::atomic<bool>* givenUp = nullptr);
    void WakePosters();

    /// Takes and runs tasks, on the calling thread, until the mailbox is closed and empty. `onIdle` runs whenever the
    /// last task that waited has been done. An exception that leaves either is logged, and the next task runs.
    void Run(const Task& onIdle = {});

    /// No task is accepted any more; those that are queued still run. Wakes waiting posters.
    void Close();

    std::size_t Waiting() const;
    /// Whether the calling thread is the one inside Run.
    bool IsMine() const;

private:
    struct Entry {
        int priority;
        Task task;
    };
    const std::size_t m_length;
    mutable std::mutex m_mutex;
    std::condition_variable m_notEmpty;
    std::condition_variable m_notFull;
    std::deque<Entry> m_entries;
    bool m_closed = false;
    std::thread::id m_runner;
};
