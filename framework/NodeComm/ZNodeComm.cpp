#include "NodeComm/ZNodeComm.h"

#include "ZMessages/ZFields.h"

Z_IMPLEMENT(ZNodeComm)

ZResponseSource::ZResponseSource(const ZMessage& message) {
    if (const auto source = message.GetResponseSource()) {
        *this = *source;
    }
}

std::shared_ptr<ZMessage> ZNodeComm::CloneMessage(const std::shared_ptr<ZMessage>& message) {
    ZVector<std::shared_ptr<ZMessage>> copies = ZFields::CloneMessages({message});
    return copies.empty() ? nullptr : copies.front();
}
