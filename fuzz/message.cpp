#include <array>

#include "Fuzz.h"
#include "ZMessages/OperationMessages.h"
#include "ZMessages/OrderMessages.h"
#include "ZMessages/PeerMessages.h"
#include "ZMessages/TrialMessages.h"
#include "ZMessages/TrustMessages.h"
#include "ZMessages/ZJSONCommStream.h"

namespace {

constexpr std::array kClasses{"ZSystemUpdateMsg",
                              "ZCompareVersionsMsg",
                              "ZGenericRequestMsg",
                              "ZVersionInfoMsg",
                              "ZMessageArray",
                              "FolderUpdateMsg",
                              "StorageDevicesMsg",
                              "ZFileOpenMsg",
                              "ZFileWriteMsg",
                              "ZFileCloseMsg",
                              "TransferMsg",
                              "ZDevicePropertiesMsg",
                              "ZPairMsg",
                              "ZPeersMsg",
                              "ZOperationMsg",
                              "ZOperationsMsg",
                              "ZOperationsRequestMsg",
                              "ZScanMsg",
                              "ZCancelMsg",
                              "ZForgetMsg",
                              "ZInventoryMsg",
                              "InstallProgressMsg",
                              "ZTrustChainMsg",
                              "ZTrustMsg",
                              "ZOrderMsg",
                              "ZDeviceCompatibilityMsg",
                              "ZSlotsMsg",
                              "ZRevertMsg",
                              "ZAllowMsg",
                              "ZInstallRecordMsg"};

}  // namespace

// A JSON text into a message of any class: what was read is written, and read again, the same.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest = fuzz::Text(data, size);
    const char* const name = kClasses.at(fuzz::TakeByte(rest) % kClasses.size());
    const auto make = [name] { return cast_shared<ZMessage>(ZShared::ZFactory::Instance().CreateShared(name)); };
    const auto message = make();
    fuzz::Must(message != nullptr, name);
    ZJSONCommStream stream;
    message->Load(rest, stream);  // of a wrong type: the members that could be read count
    std::string text;
    fuzz::Must(message->Save(text, stream), "a message can be written");
    const auto again = make();
    fuzz::Must(again->Load(std::string_view(text), stream), "what is written can be read");
    std::string rewritten;
    again->Save(rewritten, stream);
    fuzz::Must(rewritten == text, "what is read is what was written");
    return 0;
}
