#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <functional>

#include "ZShared/ZChildReaper.h"
#include "ZShared/ZCommandRunner.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZFileDescriptor.h"

extern char** environ;

namespace {

/// Runs `body` in a child, which may block for good where the caller must not. The child reports an error number, or
/// closes the pipe without one. Between fork and exec only what is safe there may be called.
class Child {
public:
    ZResult<void> Start(const std::string& name, const std::function<void(int report)>& body) {
        std::array<int, 2> ends{-1, -1};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            return ZError::OfSystem("pipe", errno);
        }
        m_report.Reset(ends[0]);
        const ZFileDescriptor writer(ends[1]);
        m_name = name;
        m_id = ::fork();
        if (m_id < 0) {
            return ZError::OfSystem(name, errno);
        }
        if (m_id == 0) {
            body(writer.Get());
            ::_exit(127);
        }
        return {};
    }

    /// What the child reported, 0 for nothing; an error when it takes too long, after which it is ended.
    ZResult<int> Report(std::chrono::milliseconds limit) {
        const auto deadline = ZClock::now() + limit;
        pollfd entry{m_report.Get(), POLLIN, 0};
        int ready = 0;
        do {
            ready = ::poll(&entry, 1, PollTimeout(deadline));
        } while (ready < 0 && errno == EINTR);
        int error = 0;
        if (ready > 0 && ::read(m_report.Get(), &error, sizeof error) >= 0) {
            return error;
        }
        ::kill(m_id, SIGKILL);
        ZChildReaper::Instance().Watch(m_id, m_name);  // one that is stuck in the kernel ends when the kernel lets it
        return ZError(m_name + ": it does not answer");
    }

    /// What the child wrote behind its report, in the same write: more is not waited for, since another child that
    /// was forked meanwhile may hold the pipe open.
    std::string Rest() const {
        std::array<char, PATH_MAX> bytes{};
        const ssize_t count = ::read(m_report.Get(), bytes.data(), bytes.size());
        return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

    pid_t Id() const { return m_id; }
    /// For one that has reported, and so ends now.
    void Reap() const {
        while (::waitpid(m_id, nullptr, 0) < 0 && errno == EINTR) {
        }
    }

private:
    pid_t m_id = -1;
    std::string m_name;
    ZFileDescriptor m_report;
};

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));  // exec's old signature; it does not write
    }
    pointers.push_back(nullptr);
    return pointers;
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

}  // namespace

ZResult<pid_t> StartDetached(const std::vector<std::string>& arguments, const std::vector<std::string>& further,
                             std::chrono::milliseconds limit) {
    if (arguments.empty()) {
        return ZError("no program given");
    }
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        variables.emplace_back(*variable);
    }
    variables.insert(variables.end(), further.begin(), further.end());
    const auto argv = Pointers(arguments);
    const auto envp = Pointers(variables);
    Child child;
    const auto started = child.Start(arguments.front(), [&](int report) {
        Detach(report);
        ::execve(argv[0], argv.data(), envp.data());
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
    Child child;
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
    Child child;
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
