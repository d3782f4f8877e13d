#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "EventTable.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZWakeUp.h"
#include "http/HttpMessage.h"
#include "http/UserShares.h"

namespace gateway {

/// The events that wait for one listener. Thread-safe.
class EventQueue {
public:
    EventQueue(std::size_t limit, std::string user, bool withLog)
        : m_limit(limit), m_user(std::move(user)), m_withLog(withLog) {}

    const std::string& User() const { return m_user; }
    bool WantsLog() const { return m_withLog; }
    /// An event that finds the queue full makes the listener one that is dropped: it would miss something.
    void Put(const std::shared_ptr<const std::string>& event);
    bool IsOverrun() const { return m_state.Lock()->overrun; }
    /// Adds all that waits to `events`, which may be nothing.
    void Take(HttpStream::Pieces& events);

private:
    struct State {
        HttpStream::Pieces events;
        bool overrun = false;
    };
    const std::size_t m_limit;
    const std::string m_user;  // Peer::account
    const bool m_withLog;
    ZGuarded<State> m_state;
};

/// Hands every event to all listeners, each through a queue of its own, and remembers what a new one must know first.
/// Thread-safe.
class EventHub {
public:
    /// At most `maxListeners` at once, for each of which at most `backlog` events wait.
    EventHub(std::size_t maxListeners, std::size_t backlog);
    ~EventHub();
    EventHub(const EventHub&) = delete;
    EventHub& operator=(const EventHub&) = delete;

    /// A new listener's queue, which starts with the last events of the kinds that are repeated, so that somebody who
    /// comes in the middle of an install knows where it stands, and then the comment ": live". The listener has left
    /// once the queue is released, which must be before the hub ends. Null when there are as many as allowed, in all or
    /// of this user.
    std::shared_ptr<EventQueue> Join(const std::string& user, bool withLog);
    /// Set whenever something was put into a queue.
    ZWakeUp& Ready() { return m_ready; }

    /// `data` is one line of JSON.
    void Publish(const EventKind& kind, const std::string& data);

    /// The data of the last progress event; empty before the first.
    std::string LastProgress() const;

    std::size_t Listeners() const;
    void CountDropped() { ++m_dropped; }
    std::uint64_t Dropped() const { return m_dropped; }

private:
    enum class Who { All, WantsLog };
    /// Tells the listeners; what is `repeated` is remembered for later ones.
    void Tell(const char* name, const std::string& data, Who who, const EventKind* repeated = nullptr);
    std::shared_ptr<const std::string> Format(const char* name, const std::string& data);
    void Remove(const EventQueue* queue);
    void ListenToLog();
    void LeaveLog();

    const std::size_t m_backlog;
    ZWakeUp m_ready;
    std::atomic<std::uint64_t> m_dropped{0};

    mutable std::mutex m_mutex;  // guards what follows
    UserShares m_listeners;
    std::vector<EventQueue*> m_queues;
    std::uint64_t m_lastId = 0;
    std::map<const EventKind*, std::string> m_last;  // of the kinds that are repeated

    // Log lines are listened to only while somebody wants them. Never taken while m_mutex is held: a thread that logs
    // calls Publish under the log's own lock, which adding and removing a listener needs too.
    std::mutex m_logMutex;
    std::size_t m_logListeners = 0;
    int m_logListener = 0;
};

}  // namespace gateway
