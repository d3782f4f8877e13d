#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "ZShared/ZGuarded.h"

namespace gateway {

/// Runs tasks on threads that are started when they are first needed, and kept: never more of them than there were
/// tasks at once.
class WorkerPool {
public:
    using Task = std::function<void()>;

    WorkerPool() = default;
    ~WorkerPool() { Stop(); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// When the system has no thread left, the task waits for one that runs. False when there is none at all.
    bool Post(Task task);
    /// Runs what waits and ends the threads. Nothing may be posted after this.
    void Stop();

private:
    struct State {
        std::deque<Task> tasks;
        std::size_t idle = 0;
        bool stopped = false;
    };
    void Run();

    ZGuarded<State> m_state;
    std::condition_variable m_changed;
    std::vector<std::thread> m_threads;  // of the one who posts and stops
};

}  // namespace gateway
