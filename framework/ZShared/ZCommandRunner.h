#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
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

/// This process's environment without what is between it and the service manager: what programs that it starts get.
std::vector<std::string> ProgramEnvironment();

using ZOutputCallback = std::function<void(std::string_view)>;

/// Runs `commandLine` with /bin/sh in a process group of its own and waits for its end; standard output goes to
/// `onOutput` and standard error to `onComplaint`, on the calling thread, as they come; standard input is /dev/null.
/// After `timeout`, or when the calling thread's ZStopEvent is set, the whole group is ended. A child that the command
/// leaves behind holding the output open does not keep the call waiting.
ZCommandResult RunShellCommand(const std::string& commandLine, const ZOutputCallback& onOutput,
                               const ZOutputCallback& onComplaint, std::chrono::milliseconds timeout);

/// Starts a program in a session of its own with standard input from /dev/null, and `further` variables ("NAME=value")
/// beside this process's own. Returns its process id; the caller reaps it. A file that can't be read within `limit`,
/// as on a drive that does not answer any more, is an error, and nothing runs.
/// With `sealed`, that program runs in the file's place, whatever becomes of the file.
struct ZSealedProgram {
    int program = -1;  ///< a descriptor of the bytes that run, which nobody can change
    std::string file;  ///< what the program finds open, as the descriptor that ARBOR_PACKAGE_FD names; empty: nothing
    /// A program that runs instead, with the same arguments, and starts it: that finds the bytes as descriptor
    /// kProgram, and `file` as kFile. Empty: nothing.
    std::string starter = {};
    static constexpr int kProgram = 4;
    static constexpr int kFile = 5;
};
ZResult<pid_t> StartDetached(const std::vector<std::string>& arguments, const std::vector<std::string>& further = {},
                             std::chrono::milliseconds limit = std::chrono::seconds(10),
                             const ZSealedProgram* sealed = nullptr);

/// Whether there is a file; an error when that can't be learnt within `limit`. A drive that does not answer keeps only
/// a child process waiting.
ZResult<bool> ExistsWithin(const std::string& path, std::chrono::milliseconds limit);

/// The path of what is there, with links resolved and made absolute, as the kernel tells it; likewise within `limit`.
ZResult<std::filesystem::path> ResolveWithin(const std::string& path, std::chrono::milliseconds limit);
