#include "EventStream.h"

#include <algorithm>
#include <utility>

#include "Interrupt.h"
#include "TextFormat.h"

namespace arborctl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// The stream is silent for as long as nothing happens at the device; a device that is gone closes its end.
constexpr std::chrono::hours kStreamPatience{24};
/// Events waiting for a slow owner; then the reading pauses and the device decides what to do about a slow client.
constexpr std::size_t kQueueLength = 4096;
/// A device repeats its last state in one go with the answer's beginning; this is a loaded machine's time for it.
constexpr milliseconds kReplayTime{10'000};
constexpr milliseconds kFirstRetryPause{100};
constexpr milliseconds kLongestRetryPause{1000};

const char* PathFor(LogLines log) {
    return log == LogLines::kWith ? "/v1/events?log=1" : "/v1/events";
}

}  // namespace

Result<std::unique_ptr<EventStream>> EventStream::Open(const Settings& settings, LogLines log) {
    std::unique_ptr<EventStream> stream(new EventStream(settings, log));
    if (const auto opened = stream->WaitUntilOpen(settings.RequestLimit()); !opened) {
        return opened.error();
    }
    return stream;
}

Result<std::unique_ptr<EventStream>> EventStream::Reopen(const Settings& settings, LogLines log) {
    const auto end = Clock::now() + settings.ReconnectLimit();
    milliseconds pause = kFirstRetryPause;
    for (;;) {
        auto stream = Open(settings, log);
        if (stream || stream.error().code == ExitCode::kInterrupted || Clock::now() + pause > end) {
            return stream;
        }
        if (!PauseUnlessInterrupted(pause)) {
            return InterruptedByUser();
        }
        pause = std::min(pause * 2, kLongestRetryPause);
    }
}

EventStream::EventStream(const Settings& settings, LogLines log)
    : m_socketPath(settings.socketPath),
      m_connection(m_socketPath, kStreamPatience),
      m_thread([this, path = std::string(PathFor(log))] { Read(path); }) {}

EventStream::~EventStream() {
    {
        std::unique_lock lock(m_mutex);
        m_stopping = true;
        m_changed.notify_all();
        // Again and again, since a request that has not begun yet is not broken off.
        do {
            lock.unlock();
            m_connection.Stop();
            lock.lock();
        } while (!m_changed.wait_for(lock, milliseconds{20}, [this] { return m_state == State::kEnded; }));
    }
    m_thread.join();
}

void EventStream::Read(const std::string& path) {
    SseParser parser([this](ServerEvent event) { Push(std::move(event)); });
    HttpReply reply = m_connection.Stream(
        path,
        [this] {
            const std::lock_guard lock(m_mutex);
            m_state = State::kOpen;
            m_changed.notify_all();
        },
        [this, &parser](std::string_view bytes) {
            const bool sound = parser.Feed(bytes);
            const std::lock_guard lock(m_mutex);
            return sound && !m_stopping;
        });
    const std::lock_guard lock(m_mutex);
    m_end = std::move(reply);
    m_state = State::kEnded;
    m_changed.notify_all();
}

void EventStream::Push(ServerEvent event) {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_stopping || m_events.size() < kQueueLength; });
    m_events.push_back(std::move(event));
    m_changed.notify_all();
}

Result<void> EventStream::WaitUntilOpen(milliseconds limit) {
    const auto end = Clock::now() + limit;
    std::unique_lock lock(m_mutex);
    while (!m_changed.wait_for(lock, kInterruptPoll, [this] { return m_state != State::kConnecting; })) {
        if (Interrupted()) {
            return InterruptedByUser();
        }
        if (Clock::now() > end) {
            return Unreachable("the device at " + Escaped(m_socketPath) + " did not answer in time");
        }
    }
    if (m_state == State::kOpen || !m_events.empty()) {
        return {};
    }
    if (m_end.status == 0) {
        return Unreachable(m_end.failure);
    }
    return ProblemOf(m_end, PathFor(LogLines::kWithout));
}

std::optional<ServerEvent> EventStream::Next(milliseconds wait) {
    const auto end = Clock::now() + wait;
    std::unique_lock lock(m_mutex);
    const auto settled = [this] { return !m_events.empty() || m_state == State::kEnded; };
    while (!settled() && !Interrupted() && Clock::now() < end) {
        m_changed.wait_until(lock, std::min(end, Clock::now() + kInterruptPoll), settled);
    }
    if (m_events.empty()) {
        return std::nullopt;
    }
    ServerEvent event = std::move(m_events.front());
    m_events.pop_front();
    m_changed.notify_all();
    return event;
}

bool EventStream::Broken() {
    const std::lock_guard lock(m_mutex);
    return m_events.empty() && m_state == State::kEnded;
}

std::deque<ServerEvent> EventStream::TakeReplay() {
    std::deque<ServerEvent> replay;
    for (const auto end = Clock::now() + kReplayTime; Clock::now() < end;) {
        auto event = Next(std::chrono::ceil<milliseconds>(end - Clock::now()));
        if (!event || (event->IsComment() && event->data == "live")) {
            break;
        }
        if (!event->IsComment()) {
            replay.push_back(std::move(*event));
        }
    }
    return replay;
}

}  // namespace arborctl
