#include "ZShared/ZProgramOutput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZLog.h"
#include "ZShared/ZLogLimit.h"
#include "ZShared/ZStopEvent.h"

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZPlatform");
}

// Lines of one program in a minute: what an installer says on its way is far less.
constexpr unsigned kLinesAMinute = 120;

/// What a door takes at once: a line of a program. Longer ones come in pieces.
struct Line {
    pid_t process = 0;
    std::array<char, 64> program{};
    std::array<char, 1000> text{};

    static constexpr std::size_t kWithoutText = sizeof(pid_t) + 64;
};

/// Where that is allowed: a lack of memory is to end others first, or the program would be ended by its next line.
void Outlast() {
    constexpr std::string_view kNever = "-1000";
    const int file = ::open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
    static_cast<void>(::write(file, kNever.data(), kNever.size()));
    ::close(file);
}

/// Reads what the program says until nobody can say anything any more.
void Relay(int input, int door, Line line) {
    std::size_t size = 0;
    const auto send = [&](std::size_t length) {
        if (length > 0) {
            ::send(door, &line, Line::kWithoutText + length, MSG_DONTWAIT | MSG_NOSIGNAL);
        }
    };
    for (;;) {
        const ssize_t count = ::read(input, line.text.data() + size, line.text.size() - size);
        if (count <= 0 && errno == EINTR && count != 0) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        size += static_cast<std::size_t>(count);
        char* const begin = line.text.data();
        const char* end = nullptr;
        while ((end = static_cast<const char*>(std::memchr(begin, '\n', size))) != nullptr) {
            const auto length = static_cast<std::size_t>(end - begin);
            send(length);
            size -= length + 1;
            std::memmove(begin, end + 1, size);
        }
        if (size == line.text.size()) {
            send(size);
            size = 0;
        }
    }
    send(size);
}

}  // namespace

struct ZProgramOutput::Impl {
    std::mutex mutex;
    ZFileDescriptor door;
    ZFileDescriptor reader;
    ZStopEvent stop;
    std::thread thread;
    ZLogLimit limit{64, kLinesAMinute};

    void Open() {
        std::array<int, 2> ends{-1, -1};
        if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw std::system_error(errno, std::generic_category(), "socketpair");
        }
        reader.Reset(ends[0]);
        door.Reset(ends[1]);
        thread = std::thread([this] { Run(); });
    }

    void Run() {
        std::array<pollfd, 2> entries{{{reader.Get(), POLLIN, 0}, {stop.Descriptor(), POLLIN, 0}}};
        while (!stop.IsSet()) {
            ::poll(entries.data(), entries.size(), -1);
            Line line;
            const ssize_t count = ::recv(reader.Get(), &line, sizeof line, MSG_DONTWAIT);
            if (count > static_cast<ssize_t>(Line::kWithoutText)) {
                Tell(line, static_cast<std::size_t>(count) - Line::kWithoutText);
            }
        }
    }

    void Tell(const Line& line, std::size_t size) {
        const std::string program(line.program.data());
        if (const auto more = limit.Admit(program + std::to_string(line.process))) {
            Z_LOG(2, "Program %s (process %d) says: %s%s", program, line.process, std::string(line.text.data(), size),
                  *more);
        }
    }
};

ZProgramOutput::ZProgramOutput() {
    ZLog::Instance();  // made first, so that it outlives the thread
    m_impl = std::make_unique<Impl>();
}

ZProgramOutput::~ZProgramOutput() {
    m_impl->stop.Set();
    if (m_impl->thread.joinable()) {
        m_impl->thread.join();
    }
}

ZProgramOutput& ZProgramOutput::Instance() {
    static ZProgramOutput output;
    return output;
}

int ZProgramOutput::Door() {
    const std::lock_guard lock(m_impl->mutex);
    try {
        if (!m_impl->thread.joinable()) {
            m_impl->Open();
        }
        return m_impl->door.Get();
    } catch (const std::exception& failure) {
        Z_LOG(3, "What programs say will not be seen: %s", failure.what());
        return -1;
    }
}

void ZProgramOutput::HandOver(int door, const char* program) {
    Line line;
    line.process = ::getpid();
    const char* const slash = std::strrchr(program, '/');
    const char* const name = slash != nullptr ? slash + 1 : program;
    std::memcpy(line.program.data(), name, std::min(std::strlen(name), line.program.size() - 1));
    std::array<int, 2> ends{-1, -1};
    const pid_t between = door >= 0 && ::pipe2(ends.data(), O_CLOEXEC) == 0 ? ::_Fork() : -1;
    if (between == 0) {
        // The one beside is nobody's child: whoever the program waits for, it is not that.
        if (const pid_t beside = ::_Fork(); beside != 0) {
            ::_exit(beside < 0 ? 1 : 0);
        }
        Outlast();
        ::setsid();  // what ends the program's group leaves it to say its last words
        ::prctl(PR_SET_NAME, "program-output");
        const int input = ::dup2(ends[0], STDIN_FILENO);
        const int output = ::dup2(door, STDOUT_FILENO);
        ::close_range(STDERR_FILENO, ~0U, 0);
        Relay(input, output, line);
        ::_exit(0);
    }
    int status = -1;
    while (between > 0 && ::waitpid(between, &status, 0) < 0 && errno == EINTR) {
    }
    // Nobody who would take it: it must not be written to the console, nor to a pipe that nobody reads.
    const int output = between > 0 && status == 0 ? ends[1] : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (const int own : {STDOUT_FILENO, STDERR_FILENO}) {
        if (::dup2(output, own) < 0) {
            ::close(own);
        }
    }
    for (const int unused : {ends[0], ends[1], output, door}) {
        if (unused > STDERR_FILENO) {
            ::close(unused);
        }
    }
}
