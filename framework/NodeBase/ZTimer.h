#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "NodeComm/ZMailbox.h"
#include "ZShared/ZGuarded.h"

/// A named timer of a node. Its callback runs on the node's message thread. It has a thread of its own only while it is
/// started, which sleeps until the next due time. Thread-safe.
class ZTimer {
public:
    using Callback = std::function<void(void* context)>;

    ZTimer(std::shared_ptr<ZMailbox> mailbox, Callback callback, void* context);
    ~ZTimer();
    ZTimer(const ZTimer&) = delete;
    ZTimer& operator=(const ZTimer&) = delete;

    /// Calls back after `interval` (at least 1 ms), once or again and again. Starting again replaces the running
    /// period. False when no thread can be had.
    bool Start(std::chrono::milliseconds interval, bool repeat);
    /// No call is posted after this; one that was posted may still run.
    void Stop();

private:
    void Run(std::chrono::milliseconds interval, bool repeat);
    void EndThread();

    const std::shared_ptr<ZMailbox> m_mailbox;
    const std::shared_ptr<const Callback> m_callback;
    void* const m_context;
    std::mutex m_controlMutex;  // one Start or Stop at a time; guards m_thread
    std::thread m_thread;
    std::condition_variable m_changed;
    ZGuarded<bool> m_stopped{true};
};
