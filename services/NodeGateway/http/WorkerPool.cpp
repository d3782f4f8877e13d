#include "http/WorkerPool.h"

#include <system_error>

#include "http/GatewayLog.h"

namespace gateway {

bool WorkerPool::Post(Task task) {
    const auto busy = [this] {
        const auto state = m_state.Lock();
        return state->idle <= state->tasks.size();
    };
    if (busy()) {
        try {
            m_threads.emplace_back([this] { Run(); });
        } catch (const std::system_error& failure) {
            Z_LOG(4, "No thread to be had beside the %zu that serve: %s", m_threads.size(), failure.what());
        }
    }
    if (m_threads.empty()) {
        return false;
    }
    m_state.Lock()->tasks.push_back(std::move(task));
    m_changed.notify_one();
    return true;
}

void WorkerPool::Run() {
    while (true) {
        Task task;
        {
            auto state = m_state.Lock();
            ++state->idle;
            state.Wait(m_changed, [](const State& value) { return value.stopped || !value.tasks.empty(); });
            --state->idle;
            if (state->tasks.empty()) {
                return;
            }
            task = std::move(state->tasks.front());
            state->tasks.pop_front();
        }
        task();
    }
}

void WorkerPool::Stop() {
    m_state.Lock()->stopped = true;
    m_changed.notify_all();
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    m_threads.clear();
}

}  // namespace gateway
