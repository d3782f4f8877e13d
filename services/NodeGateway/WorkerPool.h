#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace gateway {

/// Runs tasks on up to `limit` threads, which are started when they are first needed and kept. As many tasks wait
/// beside them; then whoever posts one waits.
class WorkerPool {
public:
    using Task = std::function<void()>;

    explicit WorkerPool(std::size_t limit) : m_limit(limit) {}
    ~WorkerPool() { Stop(); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Waits for room. When the system has no thread left, the task waits for a running one, or runs at once if there
    /// is none.
    void Post(Task task);
    /// Runs what waits and ends the threads. Nothing may be posted after this.
    void Stop();

private:
    void Run();
    /// Called with the mutex held.
    void StartThread();

    const std::size_t m_limit;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::condition_variable m_room;
    std::deque<Task> m_tasks;
    std::vector<std::thread> m_threads;
    std::size_t m_idle = 0;
    bool m_bStopped = false;
};

}  // namespace gateway
