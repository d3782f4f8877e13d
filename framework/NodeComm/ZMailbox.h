#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

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
    bool HasRoom() const { return m_waiting < m_length; }
    void Queue(std::unique_lock<std::mutex> lock, Mail& mail, int priority);

    const std::size_t m_length;
    mutable std::mutex m_mutex;  // of all below but m_runner
    std::condition_variable m_notEmpty;
    std::condition_variable m_notFull;
    std::map<int, std::deque<Mail>, std::greater<>> m_lines;  // by priority, the highest first
    std::size_t m_waiting = 0;                                // in all lines
    std::size_t m_postersWaiting = 0;
    bool m_closed = false;
    std::atomic<std::thread::id> m_runner{};
};
