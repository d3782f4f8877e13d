#include "doctor/BoundedChild.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "Interrupt.h"

namespace arborctl::doctor {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kLongest = std::size_t{256} * 1024;

void WriteAll(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(file, text.data(), text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

/// Adds what comes next to `text`; false at the end.
bool ReadSome(int file, std::string& text) {
    std::array<char, 4096> piece{};
    const ssize_t count = read(file, piece.data(), piece.size());
    if (count > 0 && text.size() < kLongest) {
        text.append(piece.data(), static_cast<std::size_t>(count));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}

/// True once the other side has ended.
bool ReadUntilEnd(int file, std::string& text, Clock::time_point deadline) {
    while (!Interrupted() && Clock::now() < deadline) {
        pollfd entry{file, POLLIN, 0};
        if (poll(&entry, 1, static_cast<int>(kInterruptPoll.count())) > 0 && !ReadSome(file, text)) {
            return true;
        }
    }
    return false;
}

/// Waits for a child that has ended, or is about to.
int Reap(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

std::optional<std::string> InChild(const std::function<std::string()>& work, std::chrono::milliseconds limit) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        WriteAll(ends[1], work());
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    const bool ended = child > 0 && ReadUntilEnd(ends[0], text, Clock::now() + limit);
    close(ends[0]);
    if (child > 0 && !ended) {
        // Its group may not be one of its own yet. One that waits for a disk ends when the disk answers: nobody waits.
        kill(-child, SIGKILL);
        kill(child, SIGKILL);
        waitpid(child, nullptr, WNOHANG);
        return std::nullopt;
    }
    return child > 0 && Reap(child) == 0 ? std::optional(text) : std::nullopt;
}

ProgramEnd RunProgram(const std::vector<std::string>& arguments) {
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        words.push_back(const_cast<char*>(argument.c_str()));  // as execvp wants them; it does not write
    }
    words.push_back(nullptr);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return {};
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        execvp(words.front(), words.data());
        _exit(127);
    }
    close(ends[1]);
    ProgramEnd end;
    while (child > 0 && ReadSome(ends[0], end.output)) {
    }
    close(ends[0]);
    end.status = child > 0 ? Reap(child) : -1;
    return end;
}

}  // namespace arborctl::doctor
