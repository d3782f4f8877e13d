#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <thread>

#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZLog.h"
#include "ZShared/ZStopEvent.h"

/// Takes SIGTERM, SIGINT and SIGHUP for the whole process: the first asks it to end, the second to end without waiting
/// for agreement, and a third ends it on the spot, whatever it is stuck in. A thread of its own takes them, so that
/// this holds while the graph starts and stops, too.
class SignalWatch {
public:
    /// To be made before any other thread: they must all inherit the blocked signals. Throws std::system_error.
    /// `logLevel` is the threshold of its log lines.
    explicit SignalWatch(std::int32_t logLevel);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    bool Asked() const noexcept { return m_count >= 1; }
    bool AskedTwice() const noexcept { return m_count >= 2; }
    /// Readable from the first signal on. Owned by this object.
    int Descriptor() const noexcept { return m_asked.Descriptor(); }

private:
    void Watch();
    void Take(int signal);
    void Tell();
    void End();

    ZFileDescriptor m_signals;
    ZStopEvent m_asked;
    ZStopEvent m_stop;
    std::atomic<int> m_count{0};  // written by the watching thread, read by all
    const ZLogger m_log;
    ZLogger Log() const { return m_log; }
    // What the signals mean is logged by a thread of its own: an output that blocks may be what the process is stuck
    // in, and the third signal must still be taken.
    struct Untold {
        std::deque<int> signals;
        bool bLast = false;  // no further ones come
    };
    ZGuarded<Untold> m_untold;
    std::condition_variable m_changed;
    std::thread m_teller;
    std::thread m_watcher;
};
