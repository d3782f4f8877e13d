#pragma once

#include "NodeBase/ZNode.h"

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

    /// Makes a node by class name, configures and wires it. False, with `error`, when the class is unknown or no node,
    /// when its constructor throws or no thread is to be had, when the node refuses its configuration, or when a
    /// keyword could not be subscribed; the node is gone then.
    bool AddNode(const std::string& className, const ZString& name, const std::shared_ptr<ZConfig>& config,
                 std::string& error);
    /// Tells every node, in order of creation, that the graph exists. False, with `error`, when one reports failure.
    bool Start(std::string& error);
    /// Asks every node, again and again until all agree or the configured grace is over or `hurry` returns true, then
    /// stops actions, drains queues and removes the nodes in the reverse order of their creation.
    ZGraphEnd Stop(const std::function<bool()>& hurry = [] { return false; });

    const std::shared_ptr<ZNodeComm>& Comm() const { return m_comm; }
    /// The node of that name; null when there is none.
    std::shared_ptr<ZNode> Node(const ZString& name) const;

private:
    bool SetUp(ZNode& node, const std::shared_ptr<ZConfig>& config, std::string& error);
    bool AskToStop(const std::function<bool()>& hurry);
    void TearDown();

    const std::shared_ptr<ZCoreConfigParams> m_core;
    const std::shared_ptr<ZNodeComm> m_comm;
    std::vector<std::shared_ptr<ZNode>> m_nodes;  // in order of creation
};
