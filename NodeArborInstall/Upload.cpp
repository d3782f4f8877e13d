#include "ZNodeArborInstall.h"

namespace fs = std::filesystem;

namespace {

struct UploadStep {
    const char* name;
    const char* logText;
};

/// What the message asks of the file service; none for a message that is no upload.
std::optional<UploadStep> StepOf(const ZMessage& message) {
    if (message.IsKindOf(ZFileOpenMsg::m_cid)) {
        return UploadStep{"open", "Opening file"};
    }
    if (message.IsKindOf(ZFileWriteMsg::m_cid)) {
        return UploadStep{"write", "Writing buffer to file"};
    }
    if (message.IsKindOf(ZFileCloseMsg::m_cid)) {
        return UploadStep{"close", "Closing file"};
    }
    return std::nullopt;
}

}  // namespace

bool ZNodeArborInstall::OnUpload(std::shared_ptr<ZMessage>& message) {
    // Taken first: the message itself is handed on, and becomes a request of this node's own.
    const ZResponseSource source(*message);
    const std::optional<UploadStep> step = StepOf(*message);
    if (!step) {
        return true;
    }
    const auto file = std::static_pointer_cast<ZFileMsg>(message);
    const fs::path path = m_updatesPath / fs::path(file->m_FilePath);
    Z_LOG(2, "%s %s", step->logText, path);
    file->m_FilePath = ToZString(path.string());
    file->m_DeviceModel = m_deviceModel.value_or(ZDeviceModel{});
    file->m_SerialNumber = m_serialNumber;

    std::shared_ptr<ZMessage> reply;
    if (!Publish(GetEndpoint(ZEndpointType::DeviceRequest, "fileIO", 0), message, &reply, true, false)) {
        Z_LOG(4, "Did not publish FILE IO");
        return true;
    }
    Z_LOG(2, "Publishing File %s response", step->name);
    if (!PublishResponseSource(source, reply, true, false)) {
        Z_LOG(4, "Unable to publish %s response", step->name);
    }
    return true;
}
