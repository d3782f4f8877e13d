#include "NodeComm/ZMailbox.h"

#include <algorithm>

ZMailbox::ZMailbox(std::size_t length) : m_length(std::max<std::size_t>(length, 1)) {}

bool ZMailbox::Post(Task task, Clock::time_point deadline, int priority) {
    {
        std::unique_lock lock(m_mutex);
        const auto hasRoom = [this] { return m_closed || m_entries.size() < m_length; };
        if (!m_notFull.wait_until(lock, deadline, hasRoom) || m_closed) {
            return false;
        }
        auto place = m_entries.end();
        while (place != m_entries.begin() && std::prev(place)->priority < priority) {
            --place;
        }
        m_entries.insert(place, Entry{priority, std::move(task)});
    }
    m_notEmpty.notify_one();
    return true;
}

void ZMailbox::Run(const Task& onIdle) {
    std::unique_lock lock(m_mutex);
    m_runner = std::this_thread::get_id();
    while (true) {
        m_notEmpty.wait(lock, [this] { return m_closed || !m_entries.empty(); });
        if (m_entries.empty()) {
            return;
        }
        Task task = std::move(m_entries.front().task);
        m_entries.pop_front();
        lock.unlock();
        m_notFull.notify_one();
        task();
        task = nullptr;  // what it held goes before the lock is taken
        lock.lock();
        if (onIdle && m_entries.empty() && !m_closed) {
            lock.unlock();
            onIdle();
            lock.lock();
        }
    }
}

void ZMailbox::Close() {
    {
        const std::lock_guard lock(m_mutex);
        m_closed = true;
    }
    m_notEmpty.notify_all();
    m_notFull.notify_all();
}

std::size_t ZMailbox::Waiting() const {
    const std::lock_guard lock(m_mutex);
    return m_entries.size();
}

bool ZMailbox::IsMine() const {
    const std::lock_guard lock(m_mutex);
    return m_runner == std::this_thread::get_id();
}
