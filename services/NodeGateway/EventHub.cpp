#include "EventHub.h"

#include <algorithm>
#include <boost/json.hpp>
#include <string_view>

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

void EventQueue::Put(const std::shared_ptr<const std::string>& event) {
    const auto state = m_state.Lock();
    if (state->events.size() < m_limit) {
        state->events.push_back(event);
    } else {
        state->overrun = true;
    }
}

void EventQueue::Take(HttpStream::Pieces& events) {
    const auto state = m_state.Lock();
    events.insert(events.end(), state->events.begin(), state->events.end());
    state->events.clear();
}

EventHub::EventHub(std::size_t maxListeners, std::size_t backlog) : m_backlog(backlog), m_listeners(maxListeners) {}

EventHub::~EventHub() = default;

std::shared_ptr<EventQueue> EventHub::Join(uid_t user, bool withLog) {
    auto queue = std::make_unique<EventQueue>(m_backlog, user, withLog);
    {
        const std::lock_guard lock(m_mutex);
        m_queues.reserve(m_queues.size() + 1);
        if (!m_listeners.Take(user)) {
            return nullptr;
        }
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
        Remove(queue.get());
        throw;
    }
    return {queue.release(), [this](EventQueue* left) {
                if (left->WantsLog()) {
                    LeaveLog();
                }
                Remove(left);
                delete left;
            }};
}

void EventHub::Remove(const EventQueue* queue) {
    const std::lock_guard lock(m_mutex);
    std::erase(m_queues, queue);
    m_listeners.Return(queue->User());
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
    m_ready.Set();
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
