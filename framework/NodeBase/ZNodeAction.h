#pragma once

#include <atomic>

#include "ZMessages/ZMessage.h"
#include "ZShared/ZLog.h"

class ZNode;

/// What an action is given before it runs.
struct ZActionContext {
    std::shared_ptr<ZMessage> message;  ///< may be null; the action keeps its own reference for its whole run
    ZNode* node = nullptr;              ///< outlives the action
    ZString logName;
    std::int32_t logLevel = 0;
};

/// Long work of a node, on a thread of its own. ZNode::RunAction makes and runs it; the node ends it.
class ZNodeAction : public ZShared::ZFactoryObject {
    Z_CLASS(ZNodeAction, ZFactoryObject)
public:
    ZNodeAction() = default;
    ZNodeAction(const ZNodeAction&) = delete;
    ZNodeAction& operator=(const ZNodeAction&) = delete;

    void Prepare(ZActionContext context);
    /// The work. It looks at IsRunning between steps. What it returns is logged when false.
    virtual bool ActionThread() = 0;

    bool IsRunning() const { return m_bRun; }
    void Stop() { m_bRun = false; }

protected:
    ZLogger Log() const { return ZLogger(m_logName.c_str(), m_logLevel); }

    std::shared_ptr<ZMessage> m_pMessage;
    ZNode* m_pNode = nullptr;
    ZString m_logName;
    std::int32_t m_logLevel = 0;
    /// Cleared by StopAction on another thread, or by the action itself when it is done.
    std::atomic<bool> m_bRun{true};
};
