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
    ++m_count;
    m_asked.Set();
    // Before anything is logged: an output that blocks may be what the process is stuck in.
    if (m_count > 2) {
        ::_exit(128 + signal);
    }
    Z_LOG(2, "%s: %s", ::strsignal(signal), AskedTwice() ? "the graph stops at once" : "the graph is asked to stop");
}
