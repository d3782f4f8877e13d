#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>

/// The least that hands items from thread to thread: a mutex, two condition variables and a bounded queue. Thread-safe.
template <typename T>
class BareQueue {
public:
    /// Waits for room.
    void Push(T item) {
        {
            std::unique_lock lock(m_mutex);
            m_notFull.wait(lock, [this] { return m_items.size() < kLength; });
            m_items.push_back(std::move(item));
        }
        m_notEmpty.notify_one();
    }

    /// Waits for an item.
    T Pop() {
        std::unique_lock lock(m_mutex);
        m_notEmpty.wait(lock, [this] { return !m_items.empty(); });
        return Take(lock);
    }

    /// As Pop; nothing when there is no item within the time.
    std::optional<T> PopWithin(std::chrono::seconds time) {
        std::unique_lock lock(m_mutex);
        if (!m_notEmpty.wait_for(lock, time, [this] { return !m_items.empty(); })) {
            return std::nullopt;
        }
        return Take(lock);
    }

private:
    static constexpr std::size_t kLength = 256;  // as a node's queue

    T Take(std::unique_lock<std::mutex>& lock) {
        T item = std::move(m_items.front());
        m_items.pop_front();
        lock.unlock();
        m_notFull.notify_one();
        return item;
    }

    std::mutex m_mutex;
    std::condition_variable m_notEmpty;
    std::condition_variable m_notFull;
    std::deque<T> m_items;
};
