#include "KeywordTable.h"

#include <algorithm>

#include "ZMessages/OperationMessages.h"
#include "ZMessages/PeerMessages.h"

namespace gateway {

namespace {

constexpr auto kClient = ZEndpointType::ClientRequest;
constexpr auto kDevice = ZEndpointType::DeviceRequest;
constexpr auto kService = ZEndpointType::GraphService;

template <typename Request>
constexpr std::array<const char*, 3> kTakes{Request::kClassName};
constexpr std::array<const char*, 3> kFileMessages{ZFileOpenMsg::kClassName, ZFileWriteMsg::kClassName,
                                                   ZFileCloseMsg::kClassName};
constexpr const char* kNoAnswer = nullptr;
constexpr bool kBeginsJob = true;
constexpr std::size_t kFileBody = std::size_t{2} * 1024 * 1024;

constexpr Keyword kKeywords[] = {
    {"updatesystem", kClient, kTakes<ZSystemUpdateMsg>, ZVersionInfoMsg::kClassName, "Install a version", kUsualBody,
     kBeginsJob},
    {"compareversions", kClient, kTakes<ZCompareVersionsMsg>, ZCompareVersionsResultMsg::kClassName,
     "Is the first version at least the second?"},
    {"findupdates", kClient, kTakes<ZGenericRequestMsg>, ZMessageArray::kClassName,
     "The versions that could be installed, newest first"},
    {"getinstalledversioninfo", kClient, kTakes<ZGenericRequestMsg>, ZVersionInfoMsg::kClassName,
     "The version that is installed"},
    {"getUpdateInProgress", kService, kTakes<ZSystemUpdateInProgressRequestMsg>, ZSystemUpdateInProgressMsg::kClassName,
     "Is an install under way?"},
    {"newFile", kService, kTakes<FolderUpdateMsg>, kNoAnswer, "A file in a watched folder is complete: look at it",
     kUsualBody, kBeginsJob},
    {"storagedeviceupdate", kService, kTakes<StorageDevicesMsg>, kNoAnswer, "Drives came or went: look at them",
     kUsualBody, kBeginsJob},
    {"getdevices", kService, kTakes<ZGenericRequestMsg>, StorageDevicesMsg::kClassName, "The drives that are present"},
    {"deviceProps", kService, kTakes<ZGenericRequestMsg>, ZDevicePropertiesMsg::kClassName, "The device's identity"},
    {"checkCompatibility", kService, kTakes<ZDeviceCompatibilityMsg>, ZDeviceCompatibilityMsg::kClassName,
     "Do the accessory's version and this device's work together?", kUsualBody, kBeginsJob},
    {"upload", kDevice, kFileMessages, ZGenericResponseMsg::kClassName,
     "One step of bringing a package file: open, write a piece in base64, close", kFileBody, kBeginsJob},
    {"transfer", kDevice, kTakes<TransferMsg>, ZVersionInfoMsg::kClassName,
     "Carry a version's package to the accessory", kUsualBody, kBeginsJob},
    {"remoteinstall", kDevice, kTakes<ZSystemUpdateMsg>, ZMessageArray::kClassName,
     "Install this device's own version on the accessory", kUsualBody, kBeginsJob},
    {"peers", kService, kTakes<ZGenericRequestMsg>, ZPeersMsg::kClassName,
     "The other devices that this one knows, and its own key"},
    {"pair", kService, kTakes<ZPairMsg>, ZPeersMsg::kClassName,
     "Let the device with this key in, or no longer; answered as \"peers\" is"},
    {"cancel", kService, kTakes<ZCancelMsg>, kNoAnswer, "End a job when that is possible; the job tells how it ends"},
    {"forget", kClient, kTakes<ZForgetMsg>, ZGenericResponseMsg::kClassName, "Remove a file that was uploaded"},
    {"inventory", kService, kTakes<ZGenericRequestMsg>, ZInventoryMsg::kClassName,
     "Which versions this device runs, starts next, and could install"},
};

}  // namespace

std::span<const char* const> Keyword::RequestClasses() const {
    const auto end = std::find(requests.begin(), requests.end(), nullptr);
    return {requests.begin(), end};
}

std::span<const Keyword> Keywords() {
    return kKeywords;
}

const Keyword* FindKeyword(std::string_view name) {
    const auto* const found = std::ranges::find(kKeywords, name, &Keyword::name);
    return found == std::end(kKeywords) ? nullptr : found;
}

}  // namespace gateway
