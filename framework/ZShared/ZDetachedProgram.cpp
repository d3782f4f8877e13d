#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>

#include "ZShared/ZCommandRunner.h"
#include "ZShared/ZForkedChild.h"
#include "ZShared/ZProgramOutput.h"

extern char** environ;

namespace {

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));  // exec's old signature; it does not write
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// What a program of its own must not inherit: the service manager's doors and orders are this process's.
bool IsPrivate(std::string_view variable) {
    static constexpr std::array kNames{
        "NOTIFY_SOCKET=", "LISTEN_FDS=",    "LISTEN_PID=",     "LISTEN_FDNAMES=", "WATCHDOG_USEC=",
        "WATCHDOG_PID=",  "INVOCATION_ID=", "JOURNAL_STREAM=", "FDSTORE="};
    return std::ranges::any_of(kNames, [&](const char* name) { return variable.starts_with(name); });
}

/// Nothing of this process must reach the program: signals, standard input.
void Detach() {
    ::setsid();
    for (int signal = 1; signal < NSIG; ++signal) {
        ::signal(signal, SIG_DFL);
    }
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(null, STDIN_FILENO);
    ::close(null);
}

void Report(int error) {
    static_cast<void>(::write(ZForkedChild::kReport, &error, sizeof error));
}

// Where a sealed program finds itself, and the file that it was started from.
constexpr const char* kProgram = "/proc/self/fd/4";
constexpr int kPackage = ZForkedChild::kKept + 1;
static_assert(ZSealedProgram::kProgram == ZForkedChild::kKept && ZSealedProgram::kFile == kPackage);
// Until then the place of the door.
constexpr int kDoor = kPackage;

struct Answer {
    int error = 0;
    std::string text;
};

/// What `question`, which reports, finds out in a child about the path.
ZResult<Answer> AskChild(const std::string& path, std::chrono::milliseconds limit,
                         const std::function<void()>& question) {
    ZForkedChild child;
    const auto started = child.Start(path, [&] {
        question();
        ::_exit(0);
    });
    if (!started) {
        return started.error();
    }
    const auto error = child.Report(limit);
    if (!error) {
        return error.error();
    }
    Answer answer{*error, *error == 0 ? child.Rest() : std::string()};
    child.Reap();
    return answer;
}

}  // namespace

std::vector<std::string> ProgramEnvironment() {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (!IsPrivate(*variable)) {
            variables.emplace_back(*variable);
        }
    }
    return variables;
}

ZResult<pid_t> StartDetached(const std::vector<std::string>& arguments, const std::vector<std::string>& further,
                             std::chrono::milliseconds limit, const ZSealedProgram* sealed) {
    if (arguments.empty()) {
        return ZError("no program given");
    }
    std::vector<std::string> variables = ProgramEnvironment();
    variables.insert(variables.end(), further.begin(), further.end());
    const bool hasFile = sealed != nullptr && !sealed->file.empty();
    if (hasFile) {
        variables.push_back("ARBOR_PACKAGE_FD=" + std::to_string(kPackage));
    }
    const auto argv = Pointers(arguments);
    const auto envp = Pointers(variables);
    const char* const path = sealed == nullptr          ? argv[0]
                             : !sealed->starter.empty() ? sealed->starter.c_str()
                                                        : kProgram;
    const int door = ZProgramOutput::Instance().Door();
    const auto run = [&] {
        Detach();
        ZProgramOutput::HandOver(door >= 0 ? kDoor : -1, argv[0]);
        const int file = hasFile ? ::open(sealed->file.c_str(), O_RDONLY) : -1;
        if (hasFile && file != kPackage) {
            Report(file >= 0 ? EBADF : errno);
            return;
        }
        ::execve(path, argv.data(), envp.data());
        Report(errno);
    };
    ZForkedChild child;
    if (const auto started = child.Start(arguments.front(), run, {sealed != nullptr ? sealed->program : -1, door});
        !started) {
        return started.error();
    }
    const auto reported = child.Report(limit);
    if (!reported) {
        return reported.error();
    }
    if (*reported != 0) {
        child.Reap();
        return ZError::OfSystem(arguments.front(), *reported);
    }
    return child.Release();
}

ZResult<bool> ExistsWithin(const std::string& path, std::chrono::milliseconds limit) {
    const auto answer = AskChild(path, limit, [&] {
        struct stat status {};
        Report(::stat(path.c_str(), &status) == 0 ? 0 : errno);
    });
    return answer ? ZResult<bool>(answer->error == 0) : answer.error();
}

ZResult<std::filesystem::path> ResolveWithin(const std::string& path, std::chrono::milliseconds limit) {
    struct Found {
        int error = 0;
        std::array<char, PATH_MAX> path{};
    };
    const auto answer = AskChild(path, limit, [&] {
        Found found;
        const int file = ::open(path.c_str(), O_PATH | O_CLOEXEC);
        const ssize_t length = file >= 0 && ::dup2(file, STDIN_FILENO) == STDIN_FILENO
                                   ? ::readlink("/proc/self/fd/0", found.path.data(), found.path.size())
                                   : -1;
        found.error = length >= 0 ? 0 : errno;
        const std::size_t size = sizeof found.error + static_cast<std::size_t>(std::max<ssize_t>(length, 0));
        static_cast<void>(::write(ZForkedChild::kReport, &found, size));
    });
    if (!answer) {
        return answer.error();
    }
    return answer->text.empty() ? ZResult<std::filesystem::path>(ZError::OfSystem(path, answer->error))
                                : std::filesystem::path(answer->text);
}
