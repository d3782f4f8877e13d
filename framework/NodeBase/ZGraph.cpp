#include "NodeBase/ZGraph.h"

#include <algorithm>

#include "NodeComm/ZNodeCommLocal.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZLog.h"

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZGraph");
}

constexpr auto kAskAgainAfter = std::chrono::milliseconds(100);

}  // namespace

ZGraph::ZGraph(std::shared_ptr<ZCoreConfigParams> core, std::shared_ptr<ZNodeComm> comm)
    : m_core(std::move(core)), m_comm(comm ? std::move(comm) : ZMakeShared<ZNodeCommLocal>()) {
    m_comm->SetRequestTimeout(std::chrono::seconds(m_core->m_RequestTimeoutSeconds));
}

ZGraph::~ZGraph() {
    TearDown();
}

ZResult<void> ZGraph::AddNode(const std::string& className, const ZString& name,
                              const std::shared_ptr<ZConfig>& config) {
    std::shared_ptr<ZNode> node;
    try {
        node = cast_shared<ZNode>(ZShared::ZFactory::Instance().CreateShared(className, name));
        if (!node) {
            return ZError('"' + className + "\" is not the name of a node class");
        }
        node->Attach(m_comm, std::make_shared<ZMailbox>(m_core->m_QueueLength));
        node->StartMessageThread();
    } catch (const std::exception& failure) {
        return ZError("Node \"" + ToStdString(name) + "\" could not be made: " + failure.what());
    }
    auto done = SetUp(*node, config);
    if (done) {
        m_nodes.push_back(node);
    } else {
        node->LeaveBus();
        node->BeginStop();
        node->FinishStop();
    }
    return done;
}

ZResult<void> ZGraph::SetUp(ZNode& node, const std::shared_ptr<ZConfig>& config) {
    // Shared, like all that is read after a call with a limit: the work may still be running when the limit is over.
    const auto failed = std::make_shared<std::atomic<const char*>>(nullptr);
    const auto steps = [&node, core = m_core, config, failed] {
        if (!node.OnInit()) {
            *failed = "could not be initialised";
        } else if (!node.OnConfig(core, config)) {
            *failed = "refused its configuration";
        } else if (!node.OnConnecting() || !node.InitMessageMap()) {
            *failed = "could not subscribe its keywords";
        } else {
            node.OnConnected();
        }
    };
    const bool ran = node.CallOnMessageThread(steps, ZClock::now() + m_setUpLimit);
    const char* const reason = ran ? failed->load() : "failed while it was set up";
    if (reason == nullptr) {
        return {};
    }
    return ZError("Node \"" + ToStdString(node.Name()) + "\" " + reason);
}

ZResult<void> ZGraph::StartNode(const ZString& name) {
    const auto node = Node(name);
    const auto created = std::make_shared<std::atomic<bool>>(false);
    const bool ran = node && node->CallOnMessageThread([node, created] { *created = node->OnGraphCreated(); },
                                                       ZClock::now() + m_setUpLimit);
    if (ran && *created) {
        return {};
    }
    if (node) {
        node->LeaveBus();
        node->BeginStop();
        End(node);
        std::erase(m_nodes, node);
    }
    return ZError("Node \"" + ToStdString(name) + "\" failed when the graph was created");
}

ZResult<void> ZGraph::Start() {
    for (const auto& node : std::vector(m_nodes)) {
        if (auto started = StartNode(node->Name()); !started) {
            return started;
        }
    }
    return {};
}

bool ZGraph::AskToStop(const std::function<bool()>& hurry) {
    const auto deadline = ZClock::now() + std::chrono::seconds(m_core->m_ShutdownGraceSeconds);
    // A node whose thread is busy must not keep the others from being asked, nor `hurry` from being looked at.
    const auto patience = [deadline] { return std::min(deadline, ZClock::now() + std::chrono::seconds(1)); };
    for (const auto& node : m_nodes) {
        node->CallOnMessageThread([node] { node->OnShutdownWarning(); }, patience());
    }
    std::vector<std::shared_ptr<ZNode>> waiting(m_nodes.begin(), m_nodes.end());
    for (bool first = true;; first = false) {
        std::erase_if(waiting, [&](const auto& node) {
            const auto agreed = std::make_shared<std::atomic<bool>>(false);
            node->CallOnMessageThread([node, agreed] { *agreed = node->OnShutdownRequest(false); }, patience());
            if (!*agreed && first) {
                Z_LOG(3, "Waiting for %s, which is not ready to stop", node->Name());
            }
            return agreed->load();
        });
        if (waiting.empty()) {
            return true;
        }
        if (hurry() || ZClock::now() >= deadline) {
            Z_LOG(3, "Stopping although %s is not ready", waiting.front()->Name());
            return false;
        }
        std::this_thread::sleep_for(kAskAgainAfter);
    }
}

ZGraphEnd ZGraph::Stop(const std::function<bool()>& hurry) {
    const ZGraphEnd end = AskToStop(hurry) ? ZGraphEnd::Agreed : ZGraphEnd::Forced;
    TearDown();
    return end;
}

void ZGraph::End(const std::shared_ptr<ZNode>& node) {
    const auto deadline = ZClock::now() + std::chrono::seconds(m_core->m_ShutdownGraceSeconds);
    node->CallOnMessageThread(
        [node] {
            node->OnShutdown();
            node->OnDisconnect();
        },
        deadline, ZNode::ZTurn::Last);
    node->FinishStop();
}

void ZGraph::TearDown() {
    for (const auto& node : m_nodes) {
        node->BeginStop();
    }
    m_comm->Close();
    for (auto position = m_nodes.rbegin(); position != m_nodes.rend(); ++position) {
        End(*position);
    }
    while (!m_nodes.empty()) {
        m_nodes.pop_back();
    }
}

std::shared_ptr<ZNode> ZGraph::Node(const ZString& name) const {
    const auto found = std::ranges::find_if(m_nodes, [&](const auto& node) { return node->Name() == name; });
    return found == m_nodes.end() ? nullptr : *found;
}
