#include "Interrupt.h"

#include <unistd.h>
#include <csignal>

#include <algorithm>
#include <atomic>
#include <thread>

namespace arborctl {
namespace {

// Written by the signal handler only, hence lock-free.
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void OnSignal(int signal) {
    if (g_interrupted.exchange(true)) {
        _exit(128 + signal);
    }
}

}  // namespace

void CatchInterrupts() {
    struct sigaction action {};
    action.sa_handler = OnSignal;  // without SA_RESTART: a read from the keyboard ends too
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

bool Interrupted() {
    return g_interrupted.load();
}

bool PauseUnlessInterrupted(std::chrono::milliseconds duration) {
    const auto end = std::chrono::steady_clock::now() + duration;
    while (!Interrupted()) {
        const auto left = end - std::chrono::steady_clock::now();
        if (left <= left.zero()) {
            return true;
        }
        std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(left, kInterruptPoll));
    }
    return false;
}

}  // namespace arborctl
