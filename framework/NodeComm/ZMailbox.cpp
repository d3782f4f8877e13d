#include "NodeComm/ZMailbox.h"

#include <algorithm>
#include <utility>

#include "ZShared/ZLog.h"

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZMailbox");
}

template <typename Work>
void RunGuarded(const Work& work) {
    try {
        work();
    } catch (const std::exception& failure) {
        Z_LOG(4, "An exception left a task: %s", failure.what());
    } catch (...) {
        Z_LOG(4, "An exception left a task: %s", "of an unknown kind");
    }
}

}  // namespace

ZMailbox::ZMailbox(std::size_t length) : m_length(std::max<std::size_t>(length, 1)) {}

void ZMailbox::Queue(std::unique_lock<std::mutex> lock, Mail& mail, int priority) {
    m_lines[priority].push_back(std::move(mail));
    const bool wake = m_waiting++ == 0;  // else its runner is at work, or woken already
    lock.unlock();
    if (wake) {
        m_notEmpty.notify_one();
    }
}

bool ZMailbox::TryPost(Mail& mail, int priority) {
    std::unique_lock lock(m_mutex);
    if (m_closed || !HasRoom()) {
        return false;
    }
    Queue(std::move(lock), mail, priority);
    return true;
}

bool ZMailbox::Post(Mail mail, Clock::time_point deadline, int priority, const std::atomic<bool>* givenUp) {
    std::unique_lock lock(m_mutex);
    ++m_postersWaiting;
    const auto isDecided = [&] { return m_closed || (givenUp != nullptr && *givenUp) || HasRoom(); };
    m_notFull.wait_until(lock, deadline, isDecided);
    --m_postersWaiting;
    if (m_closed || !HasRoom()) {
        return false;
    }
    Queue(std::move(lock), mail, priority);
    return true;
}

void ZMailbox::Run(const Task& onIdle) {
    m_runner = std::this_thread::get_id();
    std::unique_lock lock(m_mutex);
    for (;;) {
        if (onIdle && m_waiting == 0 && !m_closed) {
            lock.unlock();
            RunGuarded(onIdle);
            lock.lock();
        }
        m_notEmpty.wait(lock, [this] { return m_closed || m_waiting != 0; });
        if (m_waiting == 0) {
            break;  // closed, and all is done
        }
        const auto line = std::ranges::find_if(m_lines, [](const auto& entry) { return !entry.second.empty(); });
        Mail mail = std::move(line->second.front());
        line->second.pop_front();
        --m_waiting;
        const bool wake = m_postersWaiting != 0;
        lock.unlock();
        if (wake) {
            m_notFull.notify_all();
        }
        RunGuarded([&mail] { mail.receiver ? mail.receiver->Receive(std::move(mail.message)) : mail.task(); });
        mail = Mail();  // what it holds goes before the lock is taken
        lock.lock();
    }
    m_runner = std::thread::id();  // the system gives the number of an ended thread to another
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
    return m_waiting;
}
