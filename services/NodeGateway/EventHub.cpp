#include "EventHub.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json.hpp>
#include <cerrno>
#include <string_view>
#include <system_error>

#include "ZShared/ZLog.h"

namespace gateway {

namespace {

std::string_view EventName(EventKind kind) {
    switch (kind) {
        case EventKind::Progress:
            return "progress";
        case EventKind::UpdateAvailable:
            return "updateavailable";
        case EventKind::StorageDeviceUpdate:
            return "storagedeviceupdate";
        case EventKind::PeerUpdate:
            return "peerupdate";
        case EventKind::Log:
            return "log";
    }
    return "message";
}

}  // namespace

EventQueue::EventQueue(std::size_t limit, bool withLog)
    : m_limit(limit), m_withLog(withLog), m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_wake) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void EventQueue::Put(const std::shared_ptr<const std::string>& event) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_events.size() < m_limit) {
            m_events.push_back(event);
        } else {
            m_bOverrun = true;
        }
    }
    ::eventfd_write(m_wake.Get(), 1);
}

bool EventQueue::Take(std::string& text) {
    eventfd_t ignored = 0;
    ::eventfd_read(m_wake.Get(), &ignored);
    const std::lock_guard lock(m_mutex);
    for (const auto& event : m_events) {
        text += *event;
    }
    m_events.clear();
    return !m_bOverrun;
}

EventHub::EventHub(std::size_t maxListeners, std::size_t backlog) : m_maxListeners(maxListeners), m_backlog(backlog) {}

EventHub::~EventHub() = default;

std::shared_ptr<EventQueue> EventHub::Join(bool withLog) {
    auto queue = std::make_unique<EventQueue>(m_backlog, withLog);
    {
        const std::lock_guard lock(m_mutex);
        if (m_queues.size() >= m_maxListeners) {
            return nullptr;
        }
        m_queues.reserve(m_queues.size() + 1);
        if (!m_lastProgress.empty()) {
            queue->Put(Format(EventKind::Progress, m_lastProgress));
        }
        if (!m_lastUpdates.empty()) {
            queue->Put(Format(EventKind::UpdateAvailable, m_lastUpdates));
        }
        // A comment line tells a client where the repeated events end.
        queue->Put(std::make_shared<const std::string>(": live\n\n"));
        m_queues.push_back(queue.get());
    }
    try {
        if (withLog) {
            ListenToLog();
        }
    } catch (...) {
        const std::lock_guard lock(m_mutex);
        std::erase(m_queues, queue.get());
        throw;
    }
    return {queue.release(), [this](EventQueue* left) {
                Leave(left);
                delete left;
            }};
}

void EventHub::Leave(const EventQueue* queue) {
    if (queue->WantsLog()) {
        LeaveLog();
    }
    const std::lock_guard lock(m_mutex);
    std::erase(m_queues, queue);
}

void EventHub::ListenToLog() {
    const std::lock_guard lock(m_logMutex);
    if (m_logListeners == 0) {
        m_logListener = ZLog::Instance().AddListener([this](int, const std::string& line) {
            Publish(EventKind::Log, boost::json::serialize(boost::json::object{{"line", line}}));
        });
    }
    ++m_logListeners;
}

void EventHub::LeaveLog() {
    const std::lock_guard lock(m_logMutex);
    if (--m_logListeners == 0) {
        ZLog::Instance().RemoveListener(m_logListener);
    }
}

std::shared_ptr<const std::string> EventHub::Format(EventKind kind, const std::string& data) {
    std::string text = "event: ";
    text += EventName(kind);
    text += "\nid: " + std::to_string(++m_lastId) + "\ndata: " + data + "\n\n";
    return std::make_shared<const std::string>(std::move(text));
}

void EventHub::Publish(EventKind kind, const std::string& data) {
    const std::lock_guard lock(m_mutex);
    if (kind == EventKind::Progress) {
        m_lastProgress = data;
    } else if (kind == EventKind::UpdateAvailable) {
        m_lastUpdates = data;
    }
    const auto event = Format(kind, data);
    for (EventQueue* queue : m_queues) {
        if (kind != EventKind::Log || queue->WantsLog()) {
            queue->Put(event);
        }
    }
}

std::string EventHub::LastProgress() const {
    const std::lock_guard lock(m_mutex);
    return m_lastProgress;
}

std::size_t EventHub::Listeners() const {
    const std::lock_guard lock(m_mutex);
    return m_queues.size();
}

}  // namespace gateway
