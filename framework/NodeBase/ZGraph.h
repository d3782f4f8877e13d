#pragma once

#include "NodeBase/ZNode.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZError.h"

/// How a graph ended.
enum class ZGraphEnd {
    Agreed,  ///< every node agreed to stop
    Forced,  ///< the grace period ended, or the wait was cut short, before every node agreed
};

/// A set of nodes on one bus, and their lifecycle. Used from one thread.
class ZGraph {
public:
    /// `core` is handed to every node beside its own record. The bus is the in-process one unless another is given.
    explicit ZGraph(std::shared_ptr<ZCoreConfigParams> core, std::shared_ptr<ZNodeComm> comm = nullptr);
    /// Stops without asking when Stop was not called.
    ~ZGraph();
    ZGraph(const ZGraph&) = delete;
    ZGraph& operator=(const ZGraph&) = delete;

    /// Makes a node by class name, configures and wires it. An error when the class is unknown or no node, when its
    /// constructor throws or no thread is to be had, when the node refuses its configuration, or when a keyword could
    /// not be subscribed; the node is gone then.
    ZResult<void> AddNode(const std::string& className, const ZString& name, const std::shared_ptr<ZConfig>& config);
    /// Tells the node that the graph exists. An error when it reports failure; the node is gone then. For each node
    /// once, in order of creation.
    ZResult<void> StartNode(const ZString& name);
    /// How long a node may take to be set up, and to start: 20 minutes at first, which a command of its may need. What
    /// a node that is stuck beyond it waits for is ended.
    void LimitSetUp(ZClock::duration limit) { m_setUpLimit = limit; }
    /// As StartNode for every node, up to the first that fails.
    ZResult<void> Start();
    /// Asks every node, again and again until all agree or the configured grace is over or `hurry` returns true, then
    /// stops actions, drains queues and removes the nodes in the reverse order of their creation.
    ZGraphEnd Stop(const std::function<bool()>& hurry = [] { return false; });

    const std::shared_ptr<ZNodeComm>& Comm() const { return m_comm; }
    /// The node of that name; null when there is none.
    std::shared_ptr<ZNode> Node(const ZString& name) const;

private:
    ZResult<void> SetUp(ZNode& node, const std::shared_ptr<ZConfig>& config);
    void End(const std::shared_ptr<ZNode>& node);
    bool AskToStop(const std::function<bool()>& hurry);
    void TearDown();

    const std::shared_ptr<ZCoreConfigParams> m_core;
    const std::shared_ptr<ZNodeComm> m_comm;
    std::vector<std::shared_ptr<ZNode>> m_nodes;  // in order of creation
    ZClock::duration m_setUpLimit = std::chrono::minutes(20);
};
