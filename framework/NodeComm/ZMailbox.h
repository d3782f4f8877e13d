#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class ZMessage;

/// Takes messages from a mailbox.
class ZMailReceiver {
public:
    virtual ~ZMailReceiver() = default;
    virtual void Receive(std::shared_ptr<ZMessage> message) = 0;
};

/// The bounded queue of one node: any thread posts, one thread takes. Priorities go first; equal ones in order.
class ZMailbox {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    /// One thing to do: a task, or, without the cost of making one, a message to hand to its receiver.
    struct Mail {
        Task task;
        std::shared_ptr<ZMailReceiver> receiver;
        std::shared_ptr<ZMessage> message;

        Mail() = default;
        template <typename Work>
        requires std::is_invocable_v<Work&> Mail(Work work)
            : task(std::move(work)) {}  // NOLINT(google-explicit-constructor): a task is a mail
        Mail(std::shared_ptr<ZMailReceiver> to, std::shared_ptr<ZMessage> what)
            : receiver(std::move(to)), message(std::move(what)) {}
    };

    explicit ZMailbox(std::size_t length);

    /// Queues a mail if there is room now. False, with `mail` untouched, when there is none or the mailbox is closed.
    bool TryPost(Mail& mail, int priority = 0);
    /// Queues a mail, waiting for room until `deadline`, or until `givenUp` is true and WakePosters was called. False
    /// when there was none, or when the mailbox is closed.
    bool Post(Mail mail, Clock::time_point deadline, int priority = 0, const std::atomic<bool>* givenUp = nullptr);
    void WakePosters();

    /// Takes mails and does what they ask, on the calling thread, until the mailbox is closed and empty. `onIdle` runs
    /// before it goes to sleep: the last one that waited has been done. An exception that leaves either is logged, and
    /// the next runs.
    void Run(const Task& onIdle = {});

    /// Nothing is accepted any more; what is queued is still done. Wakes waiting posters.
    void Close();

    std::size_t Waiting() const;
    /// Whether the calling thread is the one inside Run.
    bool IsMine() const { return m_runner.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

private:
    struct Entry {
        int priority;
        Mail mail;
    };
    /// Entries in the order in which they are done. Keeps its memory.
    class Line {
    public:
        bool IsEmpty() const { return m_first == m_entries.size(); }
        std::size_t Size() const { return m_entries.size() - m_first; }
        int LowestPriority() const { return IsEmpty() ? 0 : m_entries.back().priority; }
        void Insert(Entry entry);
        Mail TakeFirst();
        /// All of `other`, which is empty afterwards.
        void TakeOver(Line& other);

    private:
        std::vector<Entry> m_entries;
        std::size_t m_first = 0;  // those before it are done
    };

    bool HasRoom() const { return m_entries.Size() + m_taken < m_length; }
    void Queue(std::unique_lock<std::mutex> lock, Mail& mail, int priority);
    void LookForMore();
    bool Take(Line& batch, const Task& onIdle);
    void RunNext(Line& batch);

    const std::size_t m_length;
    mutable std::mutex m_mutex;
    std::condition_variable m_notEmpty;
    std::condition_variable m_notFull;
    Line m_entries;
    bool m_closed = false;
    bool m_runnerWaits = false;
    int m_lowestTaken = 0;  // the lowest priority in the runner's batch
    int m_patience = 0;     // how often the runner looks for more before it goes to sleep; its own
    // The runner takes all that waits at once, so that it needs the lock only for each batch. What it has not begun yet
    // still counts as waiting, and a mail of a higher priority still goes before it.
    std::atomic<std::size_t> m_queued{0};  // as many as the entries
    std::atomic<std::size_t> m_taken{0};
    std::atomic<bool> m_overtakes{false};  // among the entries is one that goes before what was taken
    std::atomic<int> m_postersWaiting{0};
    std::atomic<std::thread::id> m_runner{};
};
