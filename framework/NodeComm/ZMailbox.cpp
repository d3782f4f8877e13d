#include "NodeComm/ZMailbox.h"

#include <algorithm>
#include <utility>

#include "ZShared/ZLog.h"

namespace {

// A poster that is at work sends its next mail within a microsecond or two; going to sleep and being woken takes
// longer.
constexpr int kLooks = 40;

void Pause() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

template <typename Work>
void RunGuarded(const Work& work) {
    const auto log = [](const char* what) {
        ZLog::Instance().Log(4, "ZMailbox", "NodeComm/ZMailbox", "Run", __LINE__, "An exception left a task: %s", what);
    };
    try {
        work();
    } catch (const std::exception& failure) {
        log(failure.what());
    } catch (...) {
        log("of an unknown kind");
    }
}

}  // namespace

ZMailbox::ZMailbox(std::size_t length) : m_length(std::max<std::size_t>(length, 1)) {}

void ZMailbox::Insert(Entries& entries, Entry entry) {
    auto place = entries.end();
    while (place != entries.begin() && std::prev(place)->priority < entry.priority) {
        --place;
    }
    entries.insert(place, std::move(entry));
}

void ZMailbox::Queue(std::unique_lock<std::mutex> lock, Mail& mail, int priority) {
    Insert(m_entries, Entry{priority, std::move(mail)});
    if (m_taken != 0 && priority > m_lowestTaken) {
        m_overtakes = true;
    }
    m_queued = m_entries.size();
    const bool wake = std::exchange(m_runnerWaits, false);
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
    ++m_postersWaiting;  // before the look at the room: the runner looks at both the other way round
    const auto isDecided = [&] { return m_closed || (givenUp != nullptr && *givenUp) || HasRoom(); };
    m_notFull.wait_until(lock, deadline, isDecided);
    --m_postersWaiting;
    if (m_closed || !HasRoom()) {
        return false;
    }
    Queue(std::move(lock), mail, priority);
    return true;
}

void ZMailbox::LookForMore() const {
    for (int looks = 0; looks < kLooks && m_queued == 0; ++looks) {
        Pause();
    }
}

bool ZMailbox::Take(Entries& batch) {
    if (batch.empty()) {
        LookForMore();
    }
    std::unique_lock lock(m_mutex);
    m_overtakes = false;
    if (batch.empty()) {
        while (!m_closed && m_entries.empty()) {
            m_runnerWaits = true;
            m_notEmpty.wait(lock);
        }
        m_runnerWaits = false;
        std::swap(batch, m_entries);
    } else {
        for (Entry& entry : m_entries) {
            Insert(batch, std::move(entry));
        }
        m_entries.clear();
    }
    m_queued = 0;
    m_taken = batch.size();
    m_lowestTaken = batch.empty() ? 0 : batch.back().priority;
    return !batch.empty();
}

void ZMailbox::RunNext(Entries& batch) {
    Mail mail = std::move(batch.front().mail);
    batch.pop_front();
    --m_taken;
    if (m_postersWaiting != 0) {
        WakePosters();
    }
    RunGuarded([&mail] { mail.receiver ? mail.receiver->Receive(std::move(mail.message)) : mail.task(); });
}

void ZMailbox::Run(const Task& onIdle) {
    m_runner = std::this_thread::get_id();
    Entries batch;
    while (Take(batch)) {
        while (!batch.empty() && !m_overtakes) {
            RunNext(batch);
        }
        if (onIdle && batch.empty() && IsIdle()) {
            RunGuarded(onIdle);
        }
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

bool ZMailbox::IsIdle() const {
    const std::lock_guard lock(m_mutex);
    return m_entries.empty() && !m_closed;
}

std::size_t ZMailbox::Waiting() const {
    const std::lock_guard lock(m_mutex);
    return m_entries.size() + m_taken;
}
