#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>

#include "ZShared/ZCommandRunner.h"
#include "ZShared/ZForkedChild.h"

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

/// Nothing of this process must reach the program: signals, descriptors, standard input.
void Detach(int report) {
    ::setsid();
    for (int signal = 1; signal < NSIG; ++signal) {
        ::signal(signal, SIG_DFL);
    }
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ::dup2(null, STDIN_FILENO);
    constexpr int kReport = STDERR_FILENO + 1;
    if (report != kReport) {
        ::dup3(report, kReport, O_CLOEXEC);
    }
    ::close_range(kReport + 1, ~0U, 0);
}

constexpr int kPackage = 9;  // where the program finds the file that it was started from
constexpr const char* kPackageVariable = "ARBOR_PACKAGE_FD=9";

/// This process's ids stand for themselves in a user namespace, for a host that is not root.
struct UserMap {
    std::string users = std::to_string(::getuid()) + " " + std::to_string(::getuid()) + " 1";
    std::string groups = std::to_string(::getgid()) + " " + std::to_string(::getgid()) + " 1";
};

bool WriteText(const char* file, std::string_view text) {
    const int descriptor = ::open(file, O_WRONLY | O_CLOEXEC);
    const bool written =
        descriptor >= 0 && ::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(descriptor);
    return written;
}

/// A view of the mounts of its own, in which changes of others are still seen.
bool TakeOwnView(const UserMap& map) {
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0 || !WriteText("/proc/self/setgroups", "deny") ||
            !WriteText("/proc/self/uid_map", map.users) || !WriteText("/proc/self/gid_map", map.groups)) {
            return false;
        }
    }
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) == 0;
}

bool WriteProgram(const char* path, std::string_view bytes) {
    const int file = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0555);
    while (file >= 0 && !bytes.empty()) {
        const ssize_t count = ::write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count < 0 ? 0 : count));
    }
    return file >= 0 && ::fchmod(file, 0555) == 0 && ::close(file) == 0;
}

/// Has a program with these bytes stand at the path, for this process and its children alone. It covers the folder, not
/// the file: whoever can rename the file could rid it of what covers it.
bool Cover(const char* path, const char* folder, std::string_view bytes) {
    constexpr unsigned long kFlags = MS_NOSUID | MS_NODEV;
    return ::mount("arbor", folder, "tmpfs", kFlags, "mode=0755,size=16m") == 0 && WriteProgram(path, bytes) &&
           ::mount(nullptr, folder, nullptr, MS_REMOUNT | MS_RDONLY | kFlags, nullptr) == 0;
}

/// Has `bytes` stand at the file's path, and the file itself be open.
bool Seal(const char* path, const char* folder, std::string_view bytes, const UserMap& map) {
    const int file = ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    return file >= 0 && ::dup2(file, kPackage) == kPackage && TakeOwnView(map) && Cover(path, folder, bytes);
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
                             std::chrono::milliseconds limit, std::string_view sealed) {
    if (arguments.empty()) {
        return ZError("no program given");
    }
    std::vector<std::string> variables = ProgramEnvironment();
    variables.insert(variables.end(), further.begin(), further.end());
    if (!sealed.empty()) {
        variables.emplace_back(kPackageVariable);
    }
    const UserMap map;
    const std::string folder = std::filesystem::path(arguments.front()).parent_path().string();
    const auto argv = Pointers(arguments);
    const auto envp = Pointers(variables);
    ZForkedChild child;
    const auto started = child.Start(arguments.front(), [&](int report) {
        Detach(report);
        if (sealed.empty() || Seal(argv[0], folder.c_str(), sealed, map)) {
            ::execve(argv[0], argv.data(), envp.data());
        }
        const int error = errno;
        static_cast<void>(::write(STDERR_FILENO + 1, &error, sizeof error));
    });
    if (!started) {
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
    return child.Id();
}

ZResult<bool> ExistsWithin(const std::string& path, std::chrono::milliseconds limit) {
    ZForkedChild child;
    const auto started = child.Start(path, [&](int report) {
        struct stat status {};
        const int error = ::stat(path.c_str(), &status) == 0 ? 0 : errno;
        static_cast<void>(::write(report, &error, sizeof error));
        ::_exit(0);
    });
    if (!started) {
        return started.error();
    }
    const auto reported = child.Report(limit);
    if (!reported) {
        return reported.error();
    }
    child.Reap();
    return *reported == 0;
}

ZResult<std::filesystem::path> ResolveWithin(const std::string& path, std::chrono::milliseconds limit) {
    struct Found {
        int error = 0;
        std::array<char, PATH_MAX> path{};
    };
    ZForkedChild child;
    const auto started = child.Start(path, [&](int report) {
        Found found;
        const int file = ::open(path.c_str(), O_PATH | O_CLOEXEC);
        const ssize_t length = file >= 0 && ::dup2(file, STDIN_FILENO) == STDIN_FILENO
                                   ? ::readlink("/proc/self/fd/0", found.path.data(), found.path.size())
                                   : -1;
        found.error = length >= 0 ? 0 : errno;
        const std::size_t size = sizeof found.error + static_cast<std::size_t>(std::max<ssize_t>(length, 0));
        static_cast<void>(::write(report, &found, size));
        ::_exit(0);
    });
    if (!started) {
        return started.error();
    }
    const auto reported = child.Report(limit);
    if (!reported) {
        return reported.error();
    }
    std::string found = *reported == 0 ? child.Rest() : std::string();
    child.Reap();
    if (found.empty()) {
        return ZError::OfSystem(path, *reported);
    }
    return std::filesystem::path(found);
}
