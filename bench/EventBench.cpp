#include <sys/epoll.h>
#include <sys/resource.h>

#include <array>
#include <chrono>
#include <system_error>
#include <thread>
#include <vector>

#include "ArbordRun.h"
#include "Benches.h"
#include "ProcessStatus.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZUnixAddress.h"

namespace {

constexpr std::size_t kStreams = 1000;
constexpr std::size_t kDocuments = 100;
constexpr auto kPace = std::chrono::milliseconds(100);
constexpr auto kPatience = std::chrono::seconds(30);
constexpr double kMostMemory = 6e6;  // bytes
constexpr double kMostCpu = 0.1;     // of one core

void AllowDescriptors() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 16384);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

ZFileDescriptor Connected(const ZUnixAddress& address, std::string_view request) {
    ZFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket || ::connect(socket.Get(), address.Get(), ZUnixAddress::Size()) != 0 ||
        ::send(socket.Get(), request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
        throw std::system_error(errno, std::generic_category(), "the gateway");
    }
    return socket;
}

/// Open event streams, whose events are counted as they arrive.
class Listeners {
public:
    explicit Listeners(const ZUnixAddress& address) : m_epoll(::epoll_create1(EPOLL_CLOEXEC)) {
        while (m_sockets.size() < kStreams) {
            ZFileDescriptor socket = Connected(address, "GET /v1/events HTTP/1.1\r\n\r\n");
            epoll_event event{EPOLLIN, {.fd = socket.Get()}};
            ::epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, socket.Get(), &event);
            m_sockets.push_back(std::move(socket));
            WaitFor(m_sockets.size());  // each begins with a comment
        }
    }
    /// Reads until there were so many events in all. Throws when they do not come.
    void WaitFor(std::size_t count) {
        const auto deadline = ZClock::now() + kPatience;
        while (m_count < count) {
            ReadOnce(deadline);
            if (ZClock::now() >= deadline) {
                throw std::runtime_error("events did not arrive");
            }
        }
    }
    /// Reads what comes until then.
    void ReadUntil(ZClock::time_point end) {
        while (ZClock::now() < end) {
            ReadOnce(end);
        }
    }

private:
    void ReadOnce(ZClock::time_point end) {
        std::array<epoll_event, 64> ready{};
        const int count = ::epoll_wait(m_epoll.Get(), ready.data(), ready.size(), PollTimeout(end));
        for (int index = 0; index < count; ++index) {
            Count(ready[static_cast<std::size_t>(index)].data.fd);
        }
    }
    // An event is sent as one piece: its end is not looked for across two reads.
    void Count(int socket) {
        constexpr std::string_view kEnd = "\n\n";
        std::array<char, 16384> buffer;
        const ssize_t size = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        const std::string_view read(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        for (auto at = read.find(kEnd); at != std::string_view::npos; at = read.find(kEnd, at + kEnd.size())) {
            ++m_count;
        }
    }

    ZFileDescriptor m_epoll;
    std::vector<ZFileDescriptor> m_sockets;
    std::size_t m_count = 0;
};

/// Documents at their pace, to all streams: the host's processor time for that, and what the streams take of its
/// memory.
void FeedListeners(benchmark::State& state) {
    AllowDescriptors();
    for ([[maybe_unused]] auto _ : state) {
        const ArbordRun arbord;
        const auto address = ZUnixAddress::Of(arbord.Socket());
        const ProcessStatus process(arbord.Process());
        const std::string request =
            "POST /v1/storagedeviceupdate HTTP/1.1\r\nConnection: close\r\nContent-Length: 2\r\n\r\n{}";
        Connected(*address, request);  // what is made at the first request is not the streams'
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const double memory = process.ResidentBytes();
        Listeners listeners(*address);
        const double cpu = process.CpuSeconds();
        const auto start = ZClock::now();
        for (std::size_t sent = 1; sent <= kDocuments; ++sent) {
            const ZFileDescriptor poster = Connected(*address, request);
            listeners.ReadUntil(start + sent * kPace);
        }
        listeners.WaitFor(kStreams * (kDocuments + 1));
        const std::chrono::duration<double> time = ZClock::now() - start;
        state.counters["cpu"] = (process.CpuSeconds() - cpu) / time.count();
        state.counters["memory"] = process.ResidentBytes() - memory;
    }
}

}  // namespace

void AddEvents(Report& report) {
    Register("events/1000", FeedListeners)->Iterations(1)->Repetitions(1);
    report.Add({"1,000 event streams: memory", "events/1000#memory", "", Quantity::Megabytes, kMostMemory});
    report.Add(
        {"1,000 event streams at 10 documents a second: cores", "events/1000#cpu", "", Quantity::Count, kMostCpu});
}
