#pragma once

#include <map>

#include "NodeBase/ZActionRunner.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "NodeBase/ZOperation.h"
#include "NodeBase/ZTimer.h"

/// Base of all nodes. The graph makes a node by class name, attaches it, and calls its virtual operations on the node's
/// message thread: OnInit, OnConfig, OnConnecting, InitMessageMap, OnConnected; OnGraphCreated once all nodes exist;
/// at the end OnShutdownWarning, OnShutdownRequest until it agrees, OnShutdown, OnDisconnect; the destructor last.
class ZNode : public ZCommEnabledObject {
    Z_CLASS(ZNode, ZCommEnabledObject)
public:
    explicit ZNode(const ZString& name);
    ~ZNode() override;

    /// The node's timer of that name, made at the first call and kept by the node. `callback` runs on the message
    /// thread.
    virtual std::shared_ptr<ZTimer> GetTimer(const ZString& name, ZTimer::Callback callback, void* context);
    /// Offers the node a message that is meant for another device. True when it took it. This framework's bus and link
    /// never call it, nor OnConnectionLost, OnGraphSwapped, ShouldRegisterWithDiscovery and OnControl: they are there
    /// for hosts that have such events.
    virtual bool OnForward(std::shared_ptr<ZMessage>& message);
    virtual bool OnInit();
    virtual bool OnConnecting();
    virtual void OnConnected();

protected:
    bool PublishResponseInternal(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response,
                                 bool bReliable, bool bUrgent) override;

public:
    /// Called on the message thread when its queue has become empty.
    virtual void OnIdle();
    /// Runs the message thread until the node is stopped.
    virtual void MessagePump();
    bool OnFilterMessage(const std::shared_ptr<ZMessage>& message) override;
    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    virtual void OnConnectionLost(const ZNodeUID& peer);

protected:
    bool PublishInternal(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                         std::shared_ptr<ZMessage>* responseOut, bool bReliable, bool bUrgent) override;

public:
    virtual void OnGraphSwapped();
    virtual bool ShouldRegisterWithDiscovery() const;
    virtual void OnShutdown();
    virtual void OnShutdownWarning();
    /// Whether the node agrees to stop now. It is asked again until it does or the grace period is over.
    virtual bool OnShutdownRequest(bool bUnconditional);
    /// Subscribes the node's keywords. False makes the node count as not initialised.
    virtual bool InitMessageMap();
    virtual void OnDisconnect();
    /// Called once all nodes of the graph exist and are wired.
    virtual bool OnGraphCreated();
    virtual bool OnControl(std::shared_ptr<ZMessage>& message);
    /// Called by RunAction, on its caller's thread, before the action starts. False keeps it from starting.
    virtual bool OnAction(const ZNodeAction& action);

protected:
    /// For InitMessageMap: lets people cancel this node's jobs. Whoever does one looks at ZOperation::CancelReason.
    bool SubscribeCancel();

    /// For OnConfig: hands the node's record, or one with the standard settings when it has none, to `read`, with its
    /// settings checked. False, with log lines that name the node, when the record is of another class, when a setting
    /// breaks its rule, or when `read` throws.
    template <class Record, class Read>
    bool ReadRecord(const std::shared_ptr<ZConfig>& config, const Read& read) {
        const auto record = config ? cast_shared<Record>(config) : ZMakeShared<Record>();
        return ReadChecked(record.get(), config, [&] { read(*record); });
    }

public:
    /// Starts the action registered as <own class>_<name>Action on a thread of its own, with `message`, which may be
    /// null, and returns at once. False when there is no such class, no thread, or the node is stopping.
    bool RunAction(const char* name, const std::shared_ptr<ZMessage>& message);
    /// Asks the action that was started last to stop; false when it has ended already. `bWait` also waits for all
    /// actions' end; an action must not do that.
    bool StopAction(bool bWait);
    /// True once the graph is shutting down.
    bool InShutdown() const { return m_bInShutdown; }

    /// Begins a job, which waits until it is started. For the first one of a `request`, the request's id and asker
    /// count. The node must outlive it.
    std::shared_ptr<ZOperation> BeginOperation(const ZOperationSubject& subject, const ZMessage* request = nullptr);
    /// Goes on with a job that an earlier life of this host left open.
    std::shared_ptr<ZOperation> AdoptOperation(const ZOperationMsg& left);
    /// The open jobs of this node.
    std::vector<std::shared_ptr<ZOperation>> Operations() const;

    // For the graph.

    /// Starts the message thread. Throws std::system_error when there is none to be had.
    void StartMessageThread();
    /// Where work stands among what waits in the node's queue.
    enum class ZTurn : std::int8_t { First = 1, Last = -1 };
    /// Runs `work` on the message thread and waits for it, at most until `deadline`. False when it was not done by then
    /// or threw; work that was queued in time still runs later, so it must own what it uses. Not for the message
    /// thread.
    bool CallOnMessageThread(const std::function<void()>& work, ZMailbox::Clock::time_point deadline,
                             ZTurn turn = ZTurn::First);
    /// Takes the node off the bus while others go on: no handler is entered after it.
    void LeaveBus() { Unsubscribe(); }
    /// Refuses new actions, asks the running ones to stop and ends what they wait for. Returns at once.
    void BeginStop();
    /// Waits for actions and for the queue to drain, and takes the node off the bus.
    void FinishStop();

private:
    std::shared_ptr<ZOperation> Keep(std::shared_ptr<ZOperationMsg> message);
    bool ReadChecked(ZConfig* record, const std::shared_ptr<ZConfig>& given, const std::function<void()>& read) const;

    std::atomic<bool> m_bInShutdown{false};
    ZActionRunner m_actions;
    ZGuarded<std::vector<std::weak_ptr<ZOperation>>> m_operations;
    std::mutex m_timersMutex;
    std::map<ZString, std::shared_ptr<ZTimer>> m_timers;
    std::thread m_messageThread;
};
