#include "ZShared/ZCommandRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include "ZShared/ZDeadline.h"
#include "ZShared/ZPidFd.h"
#include "ZShared/ZStopEvent.h"

namespace {

/// posix_spawn's two parameter blocks, set up as every child of ours needs them: no signal blocked, none ignored.
class SpawnSetup {
public:
    SpawnSetup() {
        ::posix_spawn_file_actions_init(&m_actions);
        ::posix_spawnattr_init(&m_attributes);
        sigset_t none;
        sigset_t all;
        ::sigemptyset(&none);
        ::sigfillset(&all);
        ::posix_spawnattr_setsigmask(&m_attributes, &none);
        ::posix_spawnattr_setsigdefault(&m_attributes, &all);
        ::posix_spawnattr_setflags(&m_attributes,
                                   POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        ::posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    ~SpawnSetup() {
        ::posix_spawnattr_destroy(&m_attributes);
        ::posix_spawn_file_actions_destroy(&m_actions);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    void Redirect(int descriptor, int to) { ::posix_spawn_file_actions_adddup2(&m_actions, descriptor, to); }

    ZResult<pid_t> Spawn(const std::vector<std::string>& arguments) {
        std::vector<char*> argv;
        argv.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));  // posix_spawn's old signature; it does not write
        }
        argv.push_back(nullptr);
        std::vector<std::string> variables = ProgramEnvironment();
        std::vector<char*> envp;
        std::ranges::transform(variables, std::back_inserter(envp), [](std::string& text) { return text.data(); });
        envp.push_back(nullptr);
        // Whatever a library left open without close-on-exec: a detached program would keep it for good.
        ::posix_spawn_file_actions_addclosefrom_np(&m_actions, STDERR_FILENO + 1);
        pid_t child = -1;
        const int failure = ::posix_spawn(&child, argv[0], &m_actions, &m_attributes, argv.data(), envp.data());
        if (failure != 0) {
            return ZError::OfSystem(arguments.front(), failure);
        }
        return child;
    }

private:
    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
};

int ExitStatus(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

/// A pipe that a command writes to.
class OutputPipe {
public:
    /// Returns the command's end; none when there is no pipe to be had.
    ZFileDescriptor Open() {
        std::array<int, 2> ends{-1, -1};
        if (::pipe2(ends.data(), O_CLOEXEC) == 0) {
            m_reader.Reset(ends[0]);
            ::fcntl(m_reader.Get(), F_SETFL, O_NONBLOCK);
        }
        return ZFileDescriptor(ends[1]);
    }
    int Descriptor() const { return m_reader.Get(); }

    /// Reads all that is there now; the pipe is closed at its end.
    void Drain(const ZOutputCallback& onOutput) {
        std::array<char, 16384> buffer;
        // Bounded, so that a flood of output can't keep the time limit from being looked at.
        for (int reads = 0; m_reader && reads < 64; ++reads) {
            const ssize_t count = ::read(m_reader.Get(), buffer.data(), buffer.size());
            if (count > 0) {
                onOutput({buffer.data(), static_cast<std::size_t>(count)});
            } else if (count == 0) {
                m_reader.Reset();
            } else if (errno != EINTR) {
                return;
            }
        }
    }

private:
    ZFileDescriptor m_reader;
};

/// One running shell command: the group leader and the pipes that its output and its complaints come from.
class RunningCommand {
public:
    ZResult<void> Start(const std::string& commandLine) {
        const ZFileDescriptor output = m_output.Open();
        const ZFileDescriptor complaints = m_complaints.Open();
        if (!output || !complaints) {
            return ZError::OfSystem("pipe", errno);
        }
        SpawnSetup setup;
        setup.Redirect(output.Get(), STDOUT_FILENO);
        setup.Redirect(complaints.Get(), STDERR_FILENO);
        const auto child = setup.Spawn({"/bin/sh", "-c", commandLine});
        if (!child) {
            return child.error();
        }
        m_child = *child;
        m_exit.Reset(::pidfd_open(m_child, 0));
        if (!m_exit) {
            const auto error = ZError::OfSystem("pidfd_open", errno);
            End();
            return error;
        }
        return {};
    }

    void Drain(const ZOutputCallback& onOutput, const ZOutputCallback& onComplaint) {
        m_output.Drain(onOutput);
        m_complaints.Drain(onComplaint);
    }

    /// Sleeps until there is output, the command has ended (true), the stop event is set or the deadline has come.
    bool WaitForChange(int stopDescriptor, ZClock::time_point deadline) {
        std::array<pollfd, 4> entries{{{m_exit.Get(), POLLIN, 0},
                                       {m_output.Descriptor(), POLLIN, 0},
                                       {m_complaints.Descriptor(), POLLIN, 0},
                                       {stopDescriptor, POLLIN, 0}}};
        return ::poll(entries.data(), entries.size(), PollTimeout(deadline)) > 0 && entries[0].revents != 0;
    }

    /// Ends the whole group; harmless when it has ended. Leaves the leader to be reaped. Where programs of another
    /// architecture are emulated, a child that was just started may not have made its group yet.
    void EndGroup() const {
        if (::kill(-m_child, SIGKILL) != 0) {
            ::kill(m_child, SIGKILL);
        }
    }

    int Reap() {
        int status = 0;
        pid_t reaped = -1;
        do {
            reaped = ::waitpid(m_child, &status, 0);
        } while (reaped < 0 && errno == EINTR);
        m_child = -1;
        // Where this process was started with SIGCHLD ignored the system forgets how a child ended: no success then.
        return reaped < 0 ? 255 : ExitStatus(status);
    }

    void End() {
        if (m_child > 0) {
            EndGroup();
            Reap();
        }
    }
    ~RunningCommand() { End(); }

private:
    pid_t m_child = -1;
    OutputPipe m_output;
    OutputPipe m_complaints;
    ZFileDescriptor m_exit;
};

constexpr const char* kOwnerStops = "The command was ended because its owner stops";

std::string Seconds(std::chrono::milliseconds time) {
    return std::to_string(std::chrono::ceil<std::chrono::seconds>(time).count()) + " s";
}

}  // namespace

ZCommandResult RunShellCommand(const std::string& commandLine, const ZOutputCallback& onOutput,
                               const ZOutputCallback& onComplaint, std::chrono::milliseconds timeout) {
    ZCommandResult result;
    if (commandLine.find('\0') != std::string::npos) {
        result.reason = "The command line holds a NUL character";
        return result;
    }
    const ZStopEvent* stop = ZStopEvent::OfThisThread();
    if (stop != nullptr && stop->IsSet()) {
        result.reason = kOwnerStops;
        return result;
    }
    const auto deadline = ZClock::now() + timeout;
    RunningCommand command;
    if (const auto started = command.Start(commandLine); !started) {
        result.reason = "The command could not be started: " + started.error().text;
        return result;
    }
    while (!command.WaitForChange(stop == nullptr ? -1 : stop->Descriptor(), deadline)) {
        command.Drain(onOutput, onComplaint);
        if (stop != nullptr && stop->IsSet()) {
            result.reason = kOwnerStops;
        } else if (ZClock::now() >= deadline) {
            result.reason = "The command was ended after " + Seconds(timeout);
        }
        if (!result.reason.empty()) {
            command.EndGroup();
            break;
        }
    }
    result.exitStatus = command.Reap();
    command.Drain(onOutput, onComplaint);
    return result;
}
