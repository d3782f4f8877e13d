#include "KeywordTable.h"

#include <algorithm>

#include "ZMessages/OperationMessages.h"
#include "ZMessages/OrderMessages.h"
#include "ZMessages/PeerMessages.h"
#include "ZMessages/TrialMessages.h"
#include "ZMessages/TrustMessages.h"

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
constexpr const char* kScan = "the order \"scan\" has a file or a drive looked at (arborctl scan FILE)";
constexpr std::size_t kChainBody = std::size_t{256} * 1024;  // a chain of 48 KiB as a JSON text
constexpr std::size_t kFileBody = std::size_t{2} * 1024 * 1024;

constexpr Keyword kKeywords[] = {
    {"updatesystem", Role::Operate, kClient, kTakes<ZSystemUpdateMsg>, ZVersionInfoMsg::kClassName, "Install a version",
     kUsualBody, kBeginsJob},
    {"compareversions", Role::Look, kClient, kTakes<ZCompareVersionsMsg>, ZCompareVersionsResultMsg::kClassName,
     "Is the first version at least the second?"},
    {"findupdates", Role::Look, kClient, kTakes<ZGenericRequestMsg>, ZMessageArray::kClassName,
     "The versions that could be installed, newest first"},
    {"getinstalledversioninfo", Role::Look, kClient, kTakes<ZGenericRequestMsg>, ZVersionInfoMsg::kClassName,
     "The version that is installed"},
    {"getUpdateInProgress", Role::Look, kService, kTakes<ZSystemUpdateInProgressRequestMsg>,
     ZSystemUpdateInProgressMsg::kClassName, "Is an install under way?"},
    {"newFile", Role::Nodes, kService, kTakes<FolderUpdateMsg>, kNoAnswer,
     "A file in a watched folder is complete: look at it", kUsualBody, kBeginsJob, kScan},
    {"storagedeviceupdate", Role::Nodes, kService, kTakes<StorageDevicesMsg>, kNoAnswer,
     "Drives came or went: look at them", kUsualBody, kBeginsJob, kScan},
    {"getdevices", Role::Nodes, kService, kTakes<ZGenericRequestMsg>, StorageDevicesMsg::kClassName,
     "The drives that are present", kUsualBody, !kBeginsJob, "GET /v1/status tells them (arborctl status)"},
    {"deviceProps", Role::Look, kService, kTakes<ZGenericRequestMsg>, ZDevicePropertiesMsg::kClassName,
     "The device's identity"},
    {"checkCompatibility", Role::Operate, kService, kTakes<ZDeviceCompatibilityMsg>,
     ZDeviceCompatibilityMsg::kClassName, "Do the accessory's version and this device's work together?", kUsualBody,
     kBeginsJob},
    {"upload", Role::Operate, kDevice, kFileMessages, ZGenericResponseMsg::kClassName,
     "One step of bringing a package file: open, write a piece in base64, close", kFileBody, kBeginsJob},
    {"transfer", Role::Operate, kDevice, kTakes<TransferMsg>, ZVersionInfoMsg::kClassName,
     "Carry a version's package to the accessory", kUsualBody, kBeginsJob},
    {"remoteinstall", Role::Operate, kDevice, kTakes<ZSystemUpdateMsg>, ZMessageArray::kClassName,
     "Install this device's own version on the accessory", kUsualBody, kBeginsJob},
    {"peers", Role::Look, kService, kTakes<ZGenericRequestMsg>, ZPeersMsg::kClassName,
     "The other devices that this one knows, and its own key"},
    {"pair", Role::Administer, kService, kTakes<ZPairMsg>, ZPeersMsg::kClassName,
     "Let the device with this key in, or no longer; answered as \"peers\" is"},
    {"scan", Role::Operate, kService, kTakes<ZScanMsg>, kNoAnswer,
     "Look at a package file on a drive or in the updates folder now, or at a whole drive", kUsualBody, kBeginsJob},
    {"cancel", Role::Operate, kService, kTakes<ZCancelMsg>, kNoAnswer,
     "End a job when that is possible; the job tells how it ends. Somebody else's takes the role \"administer\""},
    {"forget", Role::Operate, kClient, kTakes<ZForgetMsg>, ZGenericResponseMsg::kClassName,
     "Remove a file that was uploaded"},
    {"inventory", Role::Look, kService, kTakes<ZGenericRequestMsg>, ZInventoryMsg::kClassName,
     "Which versions this device runs, starts next, and could install"},
    {"trust", Role::Look, kService, kTakes<ZGenericRequestMsg>, ZTrustMsg::kClassName,
     "Whose packages may run on this device"},
    {"applytrust", Role::Administer, kClient, kTakes<ZTrustChainMsg>, ZGenericResponseMsg::kClassName,
     "Put newer trust documents into force: the text of a file arbor-trust.json", kChainBody, kBeginsJob},
    {"slots", Role::Look, kService, kTakes<ZGenericRequestMsg>, ZSlotsMsg::kClassName,
     "Which version runs, whether it has proved itself, and which were taken back"},
    {"confirm", Role::Operate, kClient, kTakes<ZGenericRequestMsg>, ZGenericResponseMsg::kClassName,
     "The version on trial works: the device stays with it"},
    {"revert", Role::Operate, kClient, kTakes<ZRevertMsg>, ZGenericResponseMsg::kClassName,
     "The version on trial does not work: the device restarts with the one before. Without a trial: an installed "
     "version does not start next"},
    {"allow", Role::Operate, kClient, kTakes<ZAllowMsg>, ZGenericResponseMsg::kClassName,
     "Offer a version again that was taken back"},
    {"veto", Role::Nodes, kService, kTakes<ZVetoMsg>, kNoAnswer, "The version on trial does not work: a node says so",
     kUsualBody, !kBeginsJob, "the order \"revert\" is for people (arborctl revert)"},
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
