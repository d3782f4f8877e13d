#include "EventTable.h"

#include "ZMessages/OperationMessages.h"
#include "ZMessages/PeerMessages.h"
#include "ZMessages/TrialMessages.h"

namespace gateway {

namespace {

constexpr auto kService = ZEndpointType::GraphService;

constexpr EventKind kEvents[] = {
    {"progress", InstallProgressMsg::kClassName, ZEndpointType::Progress, "", true, ""},
    {"updateavailable", ZMessageArray::kClassName, kService, "updateavailable", true, ""},
    {"storagedeviceupdate", StorageDevicesMsg::kClassName, kService, "storagedeviceupdate", false, ""},
    {"peerupdate", ZPeerMsg::kClassName, kService, "peerupdate", false, "a device came or went"},
    {"trial", ZSlotsMsg::kClassName, kService, "trial", true, "a version on trial, and how that goes"},
    {"operation", ZOperationMsg::kClassName, kService, "operation", false, "a job began, went on or ended"},
};

}  // namespace

std::span<const EventKind> Events() {
    return kEvents;
}

const EventKind& ProgressEvent() {
    return kEvents[0];
}

}  // namespace gateway
