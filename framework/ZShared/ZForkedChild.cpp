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
#include "ZShared/ZPidFd.h"
#include "ZShared/ZStopEvent.h"

namespace {

constexpr int kEndPatience = 200;  // milliseconds

/// The child's own copy of this process's descriptors must not hold anything of it open.
void KeepDescriptors(int report, ZForkedChild::Kept keep) {
    constexpr int kAside = 100;
    for (int& kept : keep) {
        kept = kept >= 0 ? ::fcntl(kept, F_DUPFD_CLOEXEC, kAside) : -1;
    }
    if (report != ZForkedChild::kReport) {
        ::dup3(report, ZForkedChild::kReport, O_CLOEXEC);
    }
    int place = ZForkedChild::kKept;
    for (const int kept : keep) {
        if (kept >= 0) {
            ::dup2(kept, place);
        } else {
            ::close(place);
        }
        ++place;
    }
    ::close_range(static_cast<unsigned>(place), ~0U, 0);
}

}  // namespace

ZForkedChild::ZForkedChild(ZForkedChild&& other) noexcept
    : m_id(other.Release()), m_name(std::move(other.m_name)), m_report(std::move(other.m_report)) {}

ZForkedChild& ZForkedChild::operator=(ZForkedChild&& other) noexcept {
    ZForkedChild taken(std::move(other));
    std::swap(m_id, taken.m_id);
    std::swap(m_name, taken.m_name);
    std::swap(m_report, taken.m_report);
    return *this;
}

ZForkedChild::~ZForkedChild() {
    if (m_id > 0) {
        End();
    }
}

ZResult<void> ZForkedChild::Start(const std::string& name, const std::function<void()>& body, Kept keep) {
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return ZError::OfSystem("pipe", errno);
    }
    m_report.Reset(ends[0]);
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    const ZFileDescriptor writer(ends[1]);
    m_name = name;
    m_id = ::fork();
    if (m_id < 0) {
        return ZError::OfSystem(name, errno);
    }
    if (m_id == 0) {
        KeepDescriptors(writer.Get(), keep);
        body();
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
    End();
    return ZError(m_name + (ready > 0 ? ": its owner stops" : ": it does not answer"));
}

std::string ZForkedChild::Rest() const {
    std::array<char, PATH_MAX> bytes{};
    const ssize_t count = ::read(m_report.Get(), bytes.data(), bytes.size());
    return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
}

void ZForkedChild::Reap() {
    while (::waitpid(m_id, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_id = -1;
}

void ZForkedChild::End() {
    ::kill(m_id, SIGKILL);
    const ZFileDescriptor exit(::pidfd_open(m_id, 0));
    pollfd entry{exit.Get(), POLLIN, 0};
    if (exit && ::poll(&entry, 1, kEndPatience) > 0) {
        Reap();
    } else {
        ZChildReaper::Instance().Watch(Release(), m_name);  // stuck in the kernel; it ends when the kernel lets it
    }
}
