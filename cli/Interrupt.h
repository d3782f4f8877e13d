#pragma once

#include <chrono>

namespace arborctl {

/// How often a wait looks whether the user has pressed Ctrl-C.
inline constexpr std::chrono::milliseconds kInterruptPoll{100};

/// From now on Ctrl-C and SIGTERM only set a flag, so that a command can leave its line and its connections in order;
/// a second one ends the program at once. Writing to a closed pipe or socket becomes an error instead of a signal.
/// Call once, before any thread is started.
void CatchInterrupts();

/// True once the user wants to stop. Any thread.
bool Interrupted();

/// Waits for `duration`, at most; returns early, with false, when the user wants to stop.
bool PauseUnlessInterrupted(std::chrono::milliseconds duration);

}  // namespace arborctl
