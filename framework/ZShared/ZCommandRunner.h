#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "ZShared/ZError.h"

/// How a command ended.
struct ZCommandResult {
    int exitStatus = 0;  ///< as a shell shows it: 128 + the signal's number when a signal ended the command
    std::string reason;  ///< why it did not run to its end by itself (not started, timed out, stopped); else empty
};

using ZOutputCallback = std::function<void(std::string_view)>;

/// Runs `commandLine` with /bin/sh in a process group of its own and waits for its end; standard output goes to
/// `onOutput` and standard error to `onComplaint`, on the calling thread, as they come; standard input is /dev/null.
/// After `timeout`, or when the calling thread's ZStopEvent is set, the whole group is ended. A child that the command
/// leaves behind holding the output open does not keep the call waiting.
ZCommandResult RunShellCommand(const std::string& commandLine, const ZOutputCallback& onOutput,
                               const ZOutputCallback& onComplaint, std::chrono::milliseconds timeout);

/// Starts a program in a session of its own with standard input from /dev/null. Returns its process id; the caller
/// reaps it.
ZResult<pid_t> StartDetached(const std::vector<std::string>& arguments);
