#include "NodeComm/ZMailbox.h"

#include <algorithm>

#include "ZShared/ZLog.h"

namespace {

void RunGuarded(const ZMailbox::Task& task) {
    const auto log = [](const char* what) {
        ZLog::Instance().Log(4, "ZMailbox", "NodeComm/ZMailbox", "Run", __LINE__, "An exception left a task: %s", what);
    };
    try {
        task();
    } catch (const std::exception& failure) {
        log(failure.what());
    } catch (...) {
        log("of an unknown kind");
    }
}

}  // namespace

ZMailbox::ZMailbox(std::size_t length) : m_length(std::max<std::size_t>(length, 1)) {}

bool ZMailbox::Post(Task task, Clock::time_point deadline, int priority, const std::atomic<bool>* givenUp) {
    {
        std::unique_lock lock(m_mutex);
        const auto hasRoom = [this] { return m_entries.size() < m_length; };
        const auto isDecided = [&] { return m_closed || (givenUp != nullptr && *givenUp) || hasRoom(); };
        m_notFull.wait_until(lock, deadline, isDecided);
        if (m_closed || !hasRoom()) {
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
            m_runner = {};  // the system gives the number of an ended thread to another
            return;
        }
        Task task = std::move(m_entries.front().task);
        m_entries.pop_front();
        lock.unlock();
        m_notFull.notify_one();
        RunGuarded(task);
        task = nullptr;  // what it held goes before the lock is taken
        lock.lock();
        if (onIdle && m_entries.empty() && !m_closed) {
            lock.unlock();
            RunGuarded(onIdle);
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

void ZMailbox::WakePosters() {
    const std::lock_guard lock(m_mutex);  // one that has just looked at its reason to wait is asleep by now
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
