#include "Host.h"

#include <poll.h>

#include "ZShared/ZDeadline.h"

namespace {

constexpr const char* kHostNode = "graph host";
// Beyond the longest command that a handler may wait for.
constexpr auto kSpareTime = std::chrono::minutes(1);

using Clock = Heartbeat::Clock;

}  // namespace

Host::Host(const GraphFile& file, const std::vector<std::shared_ptr<ZConfig>>& records, const SignalWatch& signals)
    : m_file(file), m_records(records), m_signals(signals), m_graph(std::in_place, file.core) {}

HostExit Host::Run() {
    if (!Start()) {
        m_manager.Stopping();
        return m_signals.Asked() ? HostExit::Done : HostExit::Failed;
    }
    const std::size_t count = m_file.nodes.size();
    Z_LOG(2, "Graph is running");
    m_manager.Ready(std::to_string(count) + (count == 1 ? " node runs" : " nodes run"));
    const EndRequest request = WaitForEnd();
    m_manager.Stopping();
    Stop(request);
    return request.restart ? HostExit::Restart : HostExit::Done;
}

bool Host::Start() {
    std::string error;
    if (AddNodes(error) && m_graph->Start(error)) {
        return true;
    }
    if (m_signals.Asked()) {
        Z_LOG(2, "The graph was stopped before it ran");
    } else {
        Z_LOG(4, "The graph could not be started: %s", error);
    }
    return false;
}

bool Host::AddNodes(std::string& error) {
    // First, so that a node can ask for the graph's end as soon as it lives.
    if (!m_graph->AddNode(ZNodeHost::kClassName, kHostNode, nullptr, error)) {
        return false;
    }
    for (std::size_t index = 0; index < m_file.nodes.size(); ++index) {
        const GraphNode& node = m_file.nodes[index];
        m_manager.Status("Starting " + ToStdString(node.name));
        if (m_signals.Asked() || !m_graph->AddNode(node.className, node.name, m_records[index], error)) {
            return false;
        }
    }
    return true;
}

EndRequest Host::WaitForEnd() {
    const auto hostNode = cast_shared<ZNodeHost>(m_graph->Node(kHostNode));
    std::vector<std::shared_ptr<ZNode>> nodes{hostNode};
    for (const GraphNode& node : m_file.nodes) {
        nodes.push_back(m_graph->Node(node.name));
    }
    Heartbeat heartbeat(nodes, m_file.platform.commandTimeout + kSpareTime);
    m_aliveDue = Clock::now();

    std::optional<EndRequest> request;
    while (!m_signals.Asked()) {
        KeepAlive(heartbeat);
        std::optional<Clock::time_point> due;
        if (m_manager.AlivePeriod().count() > 0) {
            due = m_aliveDue;
        }
        if (request) {
            due = std::min(request->due, due.value_or(request->due));
        }
        std::array<pollfd, 2> entries{{{m_signals.Descriptor(), POLLIN, 0}, {hostNode->Descriptor(), POLLIN, 0}}};
        ::poll(entries.data(), entries.size(), PollTimeout(due));
        if (auto newer = hostNode->TakeRequest()) {
            request = newer;
        }
        if (request && request->due <= Clock::now()) {
            return *request;
        }
    }
    return {};
}

void Host::KeepAlive(Heartbeat& heartbeat) {
    if (m_manager.AlivePeriod().count() == 0 || Clock::now() < m_aliveDue) {
        return;
    }
    m_aliveDue = Clock::now() + m_manager.AlivePeriod();
    const ZString silent = heartbeat.SilentNode();
    if (silent.empty()) {
        m_bSilent = false;
        m_manager.Alive();
    } else if (!m_bSilent) {
        m_bSilent = true;
        Z_LOG(4, "Node %s gives no sign of life", silent);
    }
}

void Host::Stop(const EndRequest& request) {
    // One last sign: the time that the stop may take is the service manager's stop time-out from here on.
    m_manager.Alive();
    ZGraphEnd end = ZGraphEnd::Forced;
    if (!request.unconditional) {
        end = m_graph->Stop([this] { return m_signals.AskedTwice(); });
    }
    m_graph.reset();  // asks nobody
    Z_LOG(2, "Graph was stopped%s", end == ZGraphEnd::Agreed ? "" : " without every node's agreement");
}
