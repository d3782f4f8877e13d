#include "Host.h"

#include <poll.h>

#include "ZShared/ZDeadline.h"

namespace {

constexpr const char* kHostNode = "graph host";
// Beyond the longest command that a handler may wait for.
constexpr auto kSpareTime = std::chrono::minutes(1);
// Of nodes that could not start: what they lack is usually mended by a person.
constexpr std::chrono::seconds kTryAgainAfter{10};
constexpr std::chrono::seconds kTryLimit{10};

using Clock = Heartbeat::Clock;

}  // namespace

Host::Host(const GraphFile& file, const std::vector<std::shared_ptr<ZConfig>>& records, const SignalWatch& signals)
    : m_file(file), m_records(records), m_signals(signals), m_graph(std::in_place, file.core) {}

HostExit Host::Run() {
    if (!Start()) {
        m_manager.Stopping();
        return m_signals.Asked() ? HostExit::Done : HostExit::Failed;
    }
    Z_LOG(2, "Graph is running");
    TellRunning();
    const EndRequest request = WaitForEnd();
    m_manager.Stopping();
    Stop(request);
    return request.restart ? HostExit::Restart : HostExit::Done;
}

bool Host::Start() {
    auto started = AddNodes();
    if (started) {
        started = StartNodes();
    }
    if (started && !m_signals.Asked()) {
        return true;
    }
    if (m_signals.Asked()) {
        Z_LOG(2, "The graph was stopped before it ran");
    } else {
        Z_LOG(4, "The graph could not be started: %s", started.error().text);
    }
    return false;
}

ZResult<void> Host::AddNodes() {
    // First, so that a node can ask for the graph's end as soon as it lives.
    if (auto added = m_graph->AddNode(ZNodeHost::kClassName, kHostNode, nullptr); !added) {
        return added;
    }
    for (std::size_t index = 0; index < m_file.nodes.size() && !m_signals.Asked(); ++index) {
        m_manager.Status("Starting " + ToStdString(m_file.nodes[index].name));
        if (auto added = AddNode(index); !added && m_file.nodes[index].required) {
            return added;
        } else if (!added) {
            LeaveOut(index, added.error());
        }
    }
    return {};
}

ZResult<void> Host::AddNode(std::size_t index) {
    const GraphNode& node = m_file.nodes[index];
    return m_graph->AddNode(node.className, node.name, m_records[index]);
}

ZResult<void> Host::StartNodes() {
    if (auto started = m_graph->StartNode(kHostNode); !started) {
        return started;
    }
    for (std::size_t index = 0; index < m_file.nodes.size() && !m_signals.Asked(); ++index) {
        if (m_leftOut.contains(index)) {
            continue;
        }
        if (auto started = m_graph->StartNode(m_file.nodes[index].name); !started && m_file.nodes[index].required) {
            return started;
        } else if (!started) {
            LeaveOut(index, started.error());
        }
    }
    return {};
}

void Host::LeaveOut(std::size_t index, const ZError& why) {
    Z_LOG(4, "%s; the graph runs without it, and it is tried again every %d s", why.text,
          static_cast<int>(kTryAgainAfter.count()));
    m_leftOut[index] = why.text;
    m_tryAgainDue = Clock::now() + kTryAgainAfter;
}

void Host::TryLeftOut() {
    if (m_leftOut.empty() || Clock::now() < m_tryAgainDue) {
        return;
    }
    // The service manager waits for a sign of life meanwhile, and a signal for its answer.
    m_graph->LimitSetUp(kTryLimit);
    const std::size_t before = m_leftOut.size();
    for (auto entry = m_leftOut.begin(); entry != m_leftOut.end() && !m_signals.Asked();) {
        m_manager.Alive();
        const ZResult<void> started = TryNode(entry->first);
        if (started) {
            Z_LOG(2, "Node \"%s\", which was left out, runs now", m_file.nodes[entry->first].name);
            entry = m_leftOut.erase(entry);
            continue;
        }
        if (std::exchange(entry->second, started.error().text) != started.error().text) {
            Z_LOG(4, "%s; the graph still runs without it", started.error().text);
        }
        ++entry;
    }
    m_tryAgainDue = Clock::now() + kTryAgainAfter;
    if (m_leftOut.size() != before) {
        TellRunning();
    }
}

ZResult<void> Host::TryNode(std::size_t index) {
    auto added = AddNode(index);
    return added ? m_graph->StartNode(m_file.nodes[index].name) : added;
}

void Host::TellRunning() {
    const std::size_t count = m_file.nodes.size() - m_leftOut.size();
    std::string left;
    for (const auto& [index, why] : m_leftOut) {
        left += (left.empty() ? ", without " : ", ") + ToStdString(m_file.nodes[index].name);
    }
    m_manager.Ready(std::to_string(count) + (count == 1 ? " node runs" : " nodes run") + left);
}

std::vector<std::shared_ptr<ZNode>> Host::RunningNodes() const {
    std::vector<std::shared_ptr<ZNode>> nodes{m_graph->Node(kHostNode)};
    for (std::size_t index = 0; index < m_file.nodes.size(); ++index) {
        if (!m_leftOut.contains(index)) {
            nodes.push_back(m_graph->Node(m_file.nodes[index].name));
        }
    }
    return nodes;
}

EndRequest Host::WaitForEnd() {
    const auto hostNode = cast_shared<ZNodeHost>(m_graph->Node(kHostNode));
    Heartbeat heartbeat(m_file.platform.commandTimeout + kSpareTime);
    m_aliveDue = Clock::now();

    std::optional<EndRequest> request;
    while (!m_signals.Asked()) {
        KeepAlive(heartbeat);
        TryLeftOut();
        std::optional<Clock::time_point> due;
        const auto wakeAt = [&due](Clock::time_point time) { due = std::min(time, due.value_or(time)); };
        if (m_manager.AlivePeriod().count() > 0) {
            wakeAt(m_aliveDue);
        }
        if (!m_leftOut.empty()) {
            wakeAt(m_tryAgainDue);
        }
        if (request) {
            wakeAt(request->due);
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
    const ZString silent = heartbeat.SilentNode(RunningNodes());
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
