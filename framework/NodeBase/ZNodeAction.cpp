#include "NodeBase/ZNodeAction.h"

Z_IMPLEMENT(ZNodeAction)

void ZNodeAction::Prepare(ZActionContext context) {
    m_pMessage = std::move(context.message);
    m_pNode = context.node;
    m_logName = std::move(context.logName);
    m_logLevel = context.logLevel;
}
