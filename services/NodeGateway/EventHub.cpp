#include "EventHub.h"

#include <algorithm>
#include <boost/json.hpp>

#include "LogReport.h"
#include "ZShared/ZLog.h"

namespace gateway {

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

std::shared_ptr<EventQueue> EventHub::Join(const std::string& user, bool withLog) {
    auto queue = std::make_unique<EventQueue>(m_backlog, user, withLog);
    {
        const std::lock_guard lock(m_mutex);
        m_queues.reserve(m_queues.size() + 1);
        if (!m_listeners.Take(user)) {
            return nullptr;
        }
        for (const EventKind& kind : Events()) {
            if (const auto last = m_last.find(&kind); last != m_last.end()) {
                queue->Put(Format(kind.name, last->second));
            }
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
        m_logListener = ZLog::Instance().AddListener([this](const ZLogLine& line) {
            boost::json::object entry = LogEntry(line);
            entry["line"] = line.line;
            Tell("log", boost::json::serialize(entry), Who::WantsLog);
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

std::shared_ptr<const std::string> EventHub::Format(const char* name, const std::string& data) {
    return std::make_shared<const std::string>(std::string("event: ") + name + "\nid: " + std::to_string(++m_lastId) +
                                               "\ndata: " + data + "\n\n");
}

void EventHub::Publish(const EventKind& kind, const std::string& data) {
    Tell(kind.name, data, Who::All, kind.bRepeated ? &kind : nullptr);
}

void EventHub::Tell(const char* name, const std::string& data, Who who, const EventKind* repeated) {
    const std::lock_guard lock(m_mutex);
    if (repeated != nullptr) {
        m_last[repeated] = data;
    }
    const auto event = Format(name, data);
    for (EventQueue* queue : m_queues) {
        if (who == Who::All || queue->WantsLog()) {
            queue->Put(event);
        }
    }
    m_ready.Set();
}

std::string EventHub::LastProgress() const {
    const std::lock_guard lock(m_mutex);
    const auto last = m_last.find(&ProgressEvent());
    return last == m_last.end() ? std::string() : last->second;
}

std::size_t EventHub::Listeners() const {
    const std::lock_guard lock(m_mutex);
    return m_queues.size();
}

}  // namespace gateway
