#include "ZShared/ZForkedChild.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>

#include "ZShared/ZChildReaper.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZStopEvent.h"

ZResult<void> ZForkedChild::Start(const std::string& name, const std::function<void(int report)>& body) {
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

ZResult<int> ZForkedChild::Report(std::chrono::milliseconds limit) {
    const ZStopEvent* const stop = ZStopEvent::OfThisThread();
    const auto deadline = ZClock::now() + limit;
    std::array<pollfd, 2> entries{
        {{m_report.Get(), POLLIN, 0}, {stop != nullptr ? stop->Descriptor() : -1, POLLIN, 0}}};
    int ready = 0;
    do {
        ready = ::poll(entries.data(), entries.size(), PollTimeout(deadline));
    } while (ready < 0 && errno == EINTR);
    int error = 0;
    if (ready > 0 && entries[0].revents != 0 && ::read(m_report.Get(), &error, sizeof error) >= 0) {
        return error;
    }
    ::kill(m_id, SIGKILL);
    ZChildReaper::Instance().Watch(m_id, m_name);  // one that is stuck in the kernel ends when the kernel lets it
    return ZError(m_name + (ready > 0 ? ": its owner stops" : ": it does not answer"));
}

std::string ZForkedChild::Rest() const {
    std::array<char, PATH_MAX> bytes{};
    const ssize_t count = ::read(m_report.Get(), bytes.data(), bytes.size());
    return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
}

void ZForkedChild::Reap() const {
    while (::waitpid(m_id, nullptr, 0) < 0 && errno == EINTR) {
    }
}
