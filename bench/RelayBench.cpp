#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <thread>

#include "BareQueue.h"
#include "Benches.h"
#include "Nodes.h"
#include "ZShared/ZFileDescriptor.h"

namespace {

using Clock = std::chrono::steady_clock;
using Arrivals = BareQueue<Clock::time_point>;

constexpr std::string_view kProgress =
    R"({"className":"InstallProgressMsg","header":"Installing 3.045","message":"Writing the system image",)"
    R"("percent":42,"error":false,"done":false,"spinner":false})";
constexpr std::string_view kLast = R"({"className":"InstallProgressMsg","percent":100,"done":true})";

bool Send(int descriptor, std::string_view text) {
    return ::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

/// Times each message from before its write until its arrival.
void TimeHandOffs(benchmark::State& state, int descriptor, Arrivals& arrivals) {
    for ([[maybe_unused]] auto _ : state) {
        const auto start = Clock::now();
        const auto arrival = Send(descriptor, kProgress) ? arrivals.PopWithin(std::chrono::seconds(30)) : std::nullopt;
        if (!arrival) {
            state.SkipWithError("a message did not arrive");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(*arrival - start).count());
    }
    CountItems(state, 1);
}

/// The node's relay on a thread of its own, as its progress action runs it.
class Relay {
public:
    Relay(ZNodeArborInstall& node, const std::filesystem::path& path)
        : m_node(node),
          m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)),
          m_client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        if (!m_node.BindSocket(m_listener.Get(), true) ||
            ::connect(m_client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("the progress socket could not be opened at " + path.string());
        }
        m_thread = std::thread([this] { Run(); });
    }
    ~Relay() {
        m_run = false;
        Send(m_client.Get(), kLast);
        m_thread.join();
    }
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    int Client() const { return m_client.Get(); }

private:
    void Run() {
        std::shared_ptr<ZCommStream> stream =
            ZCAST(ZCommStream, ZShared::ZFactory::Instance().CreateShared("ZJSONCommStream"));
        int listener = m_listener.Release();  // the node closes it
        while (m_node.SocketLoop(&listener, stream) && m_run) {
        }
        m_node.CloseSocket(listener, true);
    }

    ZNodeArborInstall& m_node;
    ZFileDescriptor m_listener;
    ZFileDescriptor m_client;
    std::atomic<bool> m_run{true};
    std::thread m_thread;
};

void RelayWithNode(benchmark::State& state) {
    const Scratch scratch;
    const InstallSettings settings(scratch);
    Arrivals arrivals;
    ZGraph graph(settings.core);
    const auto node =
        cast_shared<ZNodeArborInstall>(AddNode(graph, ZNodeArborInstall::kClassName, "ArborInstall", settings.record));
    const auto subscriber = AddNode(graph, ZNode::kClassName, "Subscriber");
    subscriber->Subscribe(subscriber->GetEndpoint(ZEndpointType::Progress, "", 0),
                          [&arrivals](std::shared_ptr<ZMessage>&) {
                              arrivals.Push(Clock::now());
                              return true;
                          });
    {
        const Relay relay(*node, scratch / "archive/progress");
        TimeHandOffs(state, relay.Client(), arrivals);
    }
    graph.Stop();
}

/// Polls and reads until the other end is closed, and passes on what comes; an empty text at the end.
void PassOn(int descriptor, BareQueue<std::string>& texts) {
    std::array<char, 1024> buffer;
    pollfd entry{descriptor, POLLIN, 0};
    ssize_t count = 1;
    while (count > 0 && ::poll(&entry, 1, -1) >= 0) {
        count = ::recv(descriptor, buffer.data(), buffer.size(), 0);
        texts.Push(std::string(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))));
    }
}

void RelayBare(benchmark::State& state) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        state.SkipWithError("no sockets could be made");
        return;
    }
    ZFileDescriptor writer(ends[0]);
    const ZFileDescriptor reader(ends[1]);
    BareQueue<std::string> texts;
    Arrivals arrivals;
    std::thread passing([&] { PassOn(reader.Get(), texts); });
    std::thread receiving([&] {
        while (!texts.Pop().empty()) {
            arrivals.Push(Clock::now());
        }
    });
    TimeHandOffs(state, writer.Get(), arrivals);
    writer.Reset();
    passing.join();
    receiving.join();
}

}  // namespace

void AddRelay(Report& report) {
    RegisterSelfTimed("relay/node", RelayWithNode);
    RegisterSelfTimed("relay/bare", RelayBare);
    report.Add({"installer's write to subscriber", "relay/node", "relay/bare", Quantity::Time, 2});
}
