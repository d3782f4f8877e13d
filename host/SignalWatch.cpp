#include "SignalWatch.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

#include "ZShared/ZLog.h"

namespace {

int OpenSignals() {
    sigset_t taken;
    ::sigemptyset(&taken);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ::sigaddset(&taken, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    return ::signalfd(-1, &taken, SFD_CLOEXEC);
}

}  // namespace

SignalWatch::SignalWatch(std::int32_t logLevel) : m_signals(OpenSignals()), m_log("arbord", logLevel) {
    if (!m_signals) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    m_watcher = std::thread([this] { Watch(); });
    try {
        m_teller = std::thread([this] { Tell(); });
    } catch (...) {
        End();
        throw;
    }
}

SignalWatch::~SignalWatch() {
    End();
}

void SignalWatch::End() {
    m_untold.Lock()->bLast = true;
    m_changed.notify_one();
    if (m_teller.joinable()) {
        m_teller.join();  // while a third signal is still taken
    }
    m_stop.Set();
    m_watcher.join();
}

void SignalWatch::Watch() {
    while (!m_stop.IsSet()) {
        std::array<pollfd, 2> entries{{{m_signals.Get(), POLLIN, 0}, {m_stop.Descriptor(), POLLIN, 0}}};
        ::poll(entries.data(), entries.size(), -1);
        signalfd_siginfo received{};
        if (entries[0].revents != 0 && ::read(m_signals.Get(), &received, sizeof received) == sizeof received) {
            Take(static_cast<int>(received.ssi_signo));
        }
    }
}

void SignalWatch::Take(int signal) {
    const int count = ++m_count;
    m_asked.Set();
    if (count > 2) {
        ::_exit(128 + signal);
    }
    m_untold.Lock()->signals.push_back(signal);
    m_changed.notify_one();
}

void SignalWatch::Tell() {
    for (int told = 0;; ++told) {
        int signal = 0;
        {
            auto untold = m_untold.Lock();
            untold.Wait(m_changed, [](const Untold& now) { return now.bLast || !now.signals.empty(); });
            if (untold->signals.empty()) {
                return;
            }
            signal = untold->signals.front();
            untold->signals.pop_front();
        }
        Z_LOG(2, "%s: %s", ::strsignal(signal), told > 0 ? "the graph stops at once" : "the graph is asked to stop");
    }
}
