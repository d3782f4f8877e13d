#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "GatewayClient.h"
#include "Result.h"
#include "SseParser.h"

namespace arborctl {

enum class LogLines { kWithout, kWith };

/// The device's events, read by a thread of its own so that none is lost while the owner does something else. Taking
/// events is for one thread. The destructor ends the connection and the thread.
class EventStream {
public:
    /// Connects and returns when the device has accepted: what it publishes from now on will come out of Next().
    static Result<std::unique_ptr<EventStream>> Open(const Settings& settings, LogLines log);

    /// Opens again after a break: tries, with short pauses, until the settings' reconnect limit.
    static Result<std::unique_ptr<EventStream>> Reopen(const Settings& settings, LogLines log);

    ~EventStream();
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    /// The next event or comment, in order; nothing when `wait` has passed, the user interrupts, or the stream is
    /// Broken().
    std::optional<ServerEvent> Next(std::chrono::milliseconds wait);

    /// The connection has ended and every event that came before has been taken.
    bool Broken();

    /// Takes away what the device repeats to every client that connects (its last known state), and returns it: all up
    /// to the comment "live" or, from a device that sends none, all that comes within a second. To be called first.
    std::deque<ServerEvent> TakeReplay();

private:
    enum class State { kConnecting, kOpen, kEnded };

    EventStream(const Settings& settings, LogLines log);
    void Read(const std::string& path);
    void Push(ServerEvent event);
    Result<void> WaitUntilOpen(std::chrono::milliseconds limit);

    std::string m_socketPath;
    HttpConnection m_connection;
    std::mutex m_mutex;  // guards all below but the thread
    std::condition_variable m_changed;
    std::deque<ServerEvent> m_events;
    State m_state = State::kConnecting;
    bool m_stopping = false;
    HttpReply m_end;
    std::thread m_thread;
};

}  // namespace arborctl
