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

constexpr const char* kLogSource = "host/SignalWatch";

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

SignalWatch::SignalWatch(std::int32_t logLevel) : m_signals(OpenSignals()), m_logLevel(logLevel) {
    if (!m_signals) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    m_watcher = std::thread([this] { Watch(); });
}

SignalWatch::~SignalWatch() {
    JoinTellers();  // while a third signal is still taken
    m_stop.Set();
    m_watcher.join();
    JoinTellers();
}

void SignalWatch::JoinTellers() {
    for (std::thread& teller : m_tellers) {
        std::thread ending;
        {
            const std::lock_guard lock(m_tellersMutex);
            std::swap(ending, teller);
        }
        if (ending.joinable()) {
            ending.join();
        }
    }
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
    try {
        const std::lock_guard lock(m_tellersMutex);
        m_tellers.at(static_cast<std::size_t>(count - 1)) = std::thread([this, signal, count] { Tell(signal, count); });
    } catch (const std::system_error&) {
        // Without a thread for it, nothing is said; what was asked is done all the same.
    }
}

void SignalWatch::Tell(int signal, int count) const {
    Z_LOG(2, "%s: %s", ::strsignal(signal), count > 1 ? "the graph stops at once" : "the graph is asked to stop");
}
