#include "NodeComm/ZMailbox.h"

#include <algorithm>
#include <utility>

#include "ZShared/ZLog.h"

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZMailbox");
}

// A poster that is at work sends its next mail within a microsecond or two, and whoever holds the lock gives it back
// even sooner; going to sleep and being woken takes longer.
constexpr int kLooks = 40;

void Pause() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

/// Takes a mutex that is held for a few instructions only: going to sleep for it would cost both sides more than
/// waiting.
std::unique_lock<std::mutex> LockSoon(std::mutex& mutex) {
    std::unique_lock lock(mutex, std::try_to_lock);
    for (int looks = 0; looks < kLooks && !lock; ++looks) {
        Pause();
        lock.try_lock();
    }
    if (!lock) {
        lock.lock();
    }
    return lock;
}

template <typename Work>
void RunGuarded(const Work& work) {
    const auto log = [](const char* what) { Z_LOG(4, "An exception left a task: %s", what); };
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

void ZMailbox::Line::Insert(Entry entry) {
    auto place = m_entries.end();
    const auto first = m_entries.begin() + static_cast<std::ptrdiff_t>(m_first);
    while (place != first && std::prev(place)->priority < entry.priority) {
        --place;
    }
    m_entries.insert(place, std::move(entry));
}

ZMailbox::Mail ZMailbox::Line::TakeFirst() {
    Mail mail = std::move(m_entries[m_first].mail);
    if (++m_first == m_entries.size()) {
        m_entries.clear();
        m_first = 0;
    }
    return mail;
}

void ZMailbox::Line::TakeOver(Line& other) {
    if (IsEmpty()) {
        std::swap(*this, other);
        return;
    }
    while (!other.IsEmpty()) {
        const int priority = other.m_entries[other.m_first].priority;
        Insert({priority, other.TakeFirst()});
    }
}

void ZMailbox::Queue(std::unique_lock<std::mutex> lock, Mail& mail, int priority) {
    m_entries.Insert({priority, std::move(mail)});
    if (m_taken != 0 && priority > m_lowestTaken) {
        m_overtakes = true;
    }
    m_queued.store(m_entries.Size(), std::memory_order_relaxed);
    const bool wake = std::exchange(m_runnerWaits, false);
    lock.unlock();
    if (wake) {
        m_notEmpty.notify_one();
    }
}

bool ZMailbox::TryPost(Mail& mail, int priority) {
    std::unique_lock lock = LockSoon(m_mutex);
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

void ZMailbox::LookForMore() {
    int looks = 0;
    while (looks < m_patience && m_queued.load(std::memory_order_relaxed) == 0) {
        Pause();
        ++looks;
    }
    // A processor that looks in vain is another's loss: the more often it did, the shorter it looks.
    m_patience = looks == m_patience ? m_patience / 2 : kLooks;
}

bool ZMailbox::Take(Line& batch, const Task& onIdle) {
    if (batch.IsEmpty()) {
        LookForMore();
    }
    std::unique_lock lock = LockSoon(m_mutex);
    if (onIdle && batch.IsEmpty() && m_entries.IsEmpty() && !m_closed) {
        lock.unlock();
        RunGuarded(onIdle);
        lock.lock();
    }
    m_overtakes = false;
    while (batch.IsEmpty() && !m_closed && m_entries.IsEmpty()) {
        m_runnerWaits = true;
        m_notEmpty.wait(lock);
    }
    m_runnerWaits = false;
    batch.TakeOver(m_entries);
    m_queued.store(0, std::memory_order_relaxed);
    m_taken = batch.Size();
    m_lowestTaken = batch.LowestPriority();
    if (m_taken > 1) {
        m_patience = kLooks;  // a poster is at work
    }
    return !batch.IsEmpty();
}

void ZMailbox::RunNext(Line& batch) {
    Mail mail = batch.TakeFirst();
    --m_taken;
    if (m_postersWaiting != 0) {
        WakePosters();
    }
    RunGuarded([&mail] { mail.receiver ? mail.receiver->Receive(std::move(mail.message)) : mail.task(); });
}

void ZMailbox::Run(const Task& onIdle) {
    m_runner = std::this_thread::get_id();
    Line batch;
    while (Take(batch, onIdle)) {
        while (!batch.IsEmpty() && !m_overtakes) {
            RunNext(batch);
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

std::size_t ZMailbox::Waiting() const {
    const std::lock_guard lock(m_mutex);
    return m_entries.Size() + m_taken;
}
