#include "NodeComm/ZNodeComm.h"

#include "ZMessages/ZFields.h"

Z_IMPLEMENT(ZNodeComm)

ZResponseSource::ZResponseSource(const ZMessage& message) {
    if (const auto source = message.GetResponseSource()) {
        *this = *source;
    }
}

bool ZResponseSource::IsAbandoned() const {
    const auto comm = Comm();
    return m_request != 0 && !(comm && comm->IsAwaited(*this));
}

std::shared_ptr<ZMessage> ZNodeComm::CloneMessage(const std::shared_ptr<ZMessage>& message) {
    ZVector<std::shared_ptr<ZMessage>> copies = ZFields::CloneMessages({message});
    return copies.empty() ? nullptr : copies.front();
}
