#include "WorkerPool.h"

#include <system_error>

#include "GatewayLog.h"

namespace gateway {

void WorkerPool::Post(Task task) {
    {
        std::unique_lock lock(m_mutex);
        m_room.wait(lock, [this] { return m_tasks.size() < m_limit; });
        m_tasks.push_back(std::move(task));
        if (m_tasks.size() > m_idle && m_threads.size() < m_limit) {
            StartThread();
        }
        if (!m_threads.empty()) {
            m_changed.notify_one();
            return;
        }
        task = std::move(m_tasks.back());
        m_tasks.pop_back();
    }
    task();
}

void WorkerPool::StartThread() {
    try {
        m_threads.emplace_back([this] { Run(); });
    } catch (const std::system_error& failure) {
        Z_LOG(4, "No thread to be had beside the %zu that serve: %s", m_threads.size(), failure.what());
    }
}

void WorkerPool::Run() {
    std::unique_lock lock(m_mutex);
    while (true) {
        ++m_idle;
        m_changed.wait(lock, [this] { return m_bStopped || !m_tasks.empty(); });
        --m_idle;
        if (m_tasks.empty()) {
            return;
        }
        Task task = std::move(m_tasks.front());
        m_tasks.pop_front();
        m_room.notify_one();
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
}

void WorkerPool::Stop() {
    {
        const std::lock_guard lock(m_mutex);
        m_bStopped = true;
    }
    m_changed.notify_all();
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    m_threads.clear();
}

}  // namespace gateway
