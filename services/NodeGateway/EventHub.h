#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ZShared/ZFileDescriptor.h"

namespace gateway {

enum class EventKind { Progress, UpdateAvailable, StorageDeviceUpdate, PeerUpdate, Log };

/// The events that wait for one listener. Filled by any thread, emptied by the one that serves the listener.
class EventQueue {
public:
    /// Throws std::system_error when the system has no descriptor left.
    EventQueue(std::size_t limit, bool withLog);

    bool WantsLog() const { return m_withLog; }
    /// Readable while there is something to take. Owned by this object.
    int Descriptor() const { return m_wake.Get(); }
    /// An event that finds the queue full makes the listener one that is dropped: it would miss something.
    void Put(const std::shared_ptr<const std::string>& event);
    /// Moves all that waits to `text`, which may stay empty. False when the listener is to be dropped.
    bool Take(std::string& text);

private:
    const std::size_t m_limit;
    const bool m_withLog;
    ZFileDescriptor m_wake;
    std::mutex m_mutex;
    std::deque<std::shared_ptr<const std::string>> m_events;
    bool m_bOverrun = false;
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

    /// A new listener's queue, which starts with the last progress and the last available updates, so that somebody who
    /// comes in the middle of an install knows where it stands, and then the comment ": live". The listener has left
    /// once the queue is released, which must be before the hub ends. Null when there are as many as allowed.
    std::shared_ptr<EventQueue> Join(bool withLog);

    /// `data` is one line of JSON.
    void Publish(EventKind kind, const std::string& data);

    /// The data of the last progress event; empty before the first.
    std::string LastProgress() const;

    std::size_t Listeners() const;
    void CountDropped() { ++m_dropped; }
    std::uint64_t Dropped() const { return m_dropped; }

private:
    std::shared_ptr<const std::string> Format(EventKind kind, const std::string& data);
    void Leave(const EventQueue* queue);
    void ListenToLog();
    void LeaveLog();

    const std::size_t m_maxListeners;
    const std::size_t m_backlog;
    std::atomic<std::uint64_t> m_dropped{0};

    mutable std::mutex m_mutex;  // guards what follows
    std::vector<EventQueue*> m_queues;
    std::uint64_t m_lastId = 0;
    std::string m_lastProgress;
    std::string m_lastUpdates;

    // Log lines are listened to only while somebody wants them. Never taken while m_mutex is held: a thread that logs
    // calls Publish under the log's own lock, which adding and removing a listener needs too.
    std::mutex m_logMutex;
    std::size_t m_logListeners = 0;
    int m_logListener = 0;
};

}  // namespace gateway
