#include "EventTable.h"

#include "ZMessages/PeerMessages.h"

namespace gateway {

namespace {

constexpr auto kService = ZEndpointType::GraphService;

constexpr EventKind kEvents[] = {
    {"progress", InstallProgressMsg::kClassName, ZEndpointType::Progress, "", true, ""},
    {"updateavailable", ZMessageArray::kClassName, kService, "updateavailable", true, ""},
    {"storagedeviceupdate", StorageDevicesMsg::kClassName, kService, "storagedeviceupdate", false, ""},
    {"peerupdate", ZPeerMsg::kClassName, kService, "peerupdate", false, "a device came or went"},
};

}  // namespace

std::span<const EventKind> Events() {
    return kEvents;
}

const EventKind& ProgressEvent() {
    return kEvents[0];
}

}  // namespace gateway
