#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "NodeComm/ZCommEndpoint.h"
#include "ZMessages/OrderMessages.h"
#include "ZShared/ZError.h"

class ZCommEnabledObject;

namespace gateway {

/// What nodes tell each other, made of a person's order.
struct NodeMessage {
    const char* keyword = "";
    std::shared_ptr<ZMessage> message;
};

/// Makes of the order "scan" what NodeStorage would tell: a new file, or a drive that came. Only what lies, links
/// resolved, in a place that is watched anyway is looked at: nobody else's files are run because somebody names them.
class ScanOrder {
public:
    /// `updatesFolder` may be empty: there is none.
    ScanOrder(ZCommEnabledObject& bus, std::string updatesFolder)
        : m_bus(bus), m_updatesFolder(std::move(updatesFolder)) {}

    /// An error for a path that is not to be looked at, or that can't be found within some seconds. Thread-safe.
    ZResult<NodeMessage> Translate(const ZScanMsg& order) const;

private:
    ZVector<ZString> Drives() const;
    ZError WhyNot(const std::string& wanted, const ZVector<ZString>& drives) const;

    ZCommEnabledObject& m_bus;
    const std::string m_updatesFolder;
};

}  // namespace gateway
