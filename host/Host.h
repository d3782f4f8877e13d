#pragma once

#include <map>

#include "GraphFile.h"
#include "Heartbeat.h"
#include "NodeBase/ZGraph.h"
#include "ServiceManager.h"
#include "SignalWatch.h"
#include "ZNodeHost.h"

/// The process's exit codes.
enum class HostExit : int {
    Done = 0,      ///< the graph ran and was stopped, or the check found nothing
    Failed = 1,    ///< the graph file is bad or the graph could not be started
    Usage = 2,     ///< the command line is wrong
    Restart = 75,  ///< the graph was stopped by a message that wants it to be started again
};

/// Runs one graph from its start to its end.
class Host {
public:
    /// `records` are the nodes' records, in the order of `file.nodes`. Both must outlive the host.
    Host(const GraphFile& file, const std::vector<std::shared_ptr<ZConfig>>& records, const SignalWatch& signals);

    HostExit Run();

private:
    bool Start();
    ZResult<void> AddNodes();
    ZResult<void> StartNodes();
    ZResult<void> AddNode(std::size_t index);
    /// Goes on without a node that is not required.
    void LeaveOut(std::size_t index, const ZError& why);
    void TryLeftOut();
    ZResult<void> TryNode(std::size_t index);
    void TellRunning();
    std::vector<std::shared_ptr<ZNode>> RunningNodes() const;
    EndRequest WaitForEnd();
    void Stop(const EndRequest& request);
    /// Tells the service manager that all is well, if it is and the time has come.
    void KeepAlive(Heartbeat& heartbeat);

    const GraphFile& m_file;
    const std::vector<std::shared_ptr<ZConfig>>& m_records;
    const SignalWatch& m_signals;
    ServiceManager m_manager;
    std::optional<ZGraph> m_graph;
    Heartbeat::Clock::time_point m_aliveDue;
    std::map<std::size_t, std::string> m_leftOut;  // places in m_file.nodes, and why
    Heartbeat::Clock::time_point m_tryAgainDue;
    bool m_bSilent = false;  // a node gives no sign of life, which has been logged

    ZLogger Log() const { return ZLogger("arbord", m_file.logLevel); }
};
