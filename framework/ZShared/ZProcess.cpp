#include "ZShared/ZProcess.h"

#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

std::optional<ZProcessId> FindProcess(pid_t id) {
    std::ifstream file("/proc/" + std::to_string(id) + "/stat");
    std::string text;
    if (!std::getline(file, text, '\0')) {
        return std::nullopt;
    }
    // The name, in parentheses, may hold anything: what counts stands behind its last one.
    const std::size_t name = text.rfind(')');
    std::istringstream fields(name == std::string::npos ? "" : text.substr(name + 1));
    std::string state;
    fields >> state;
    std::string skipped;
    for (int field = 4; field < 22; ++field) {
        fields >> skipped;
    }
    ZProcessId process{id, 0};
    if (!(fields >> process.start) || state == "Z" || state == "X") {
        return std::nullopt;
    }
    return process;
}

const std::string& BootId() {
    static const std::string id = [] {
        std::ifstream file("/proc/sys/kernel/random/boot_id");
        std::string text;
        std::getline(file, text);
        return text;
    }();
    return id;
}

std::int64_t MillisecondsNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::int64_t MillisecondsSinceBoot() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

std::string EndOfProcess(int waitStatus) {
    if (WIFSIGNALED(waitStatus)) {
        const char* const name = ::sigabbrev_np(WTERMSIG(waitStatus));
        return "was ended by " +
               (name == nullptr ? "signal " + std::to_string(WTERMSIG(waitStatus)) : std::string("SIG") + name);
    }
    return "ended with status " + std::to_string(WEXITSTATUS(waitStatus));
}
