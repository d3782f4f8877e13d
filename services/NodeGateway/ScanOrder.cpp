#include "ScanOrder.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include "NodeBase/ZCommEnabledObject.h"
#include "ZShared/ZCommandRunner.h"

namespace fs = std::filesystem;

namespace gateway {

namespace {

constexpr auto kDrivePatience = std::chrono::seconds(5);

/// What of `path` is behind `folder`: "" when it is the folder itself, else "/" and more; none when it is not there.
std::optional<std::string> Behind(const std::string& path, const std::string& folder) {
    const bool starts = !folder.empty() && path.starts_with(folder);
    const std::string rest = starts ? path.substr(folder.size()) : "";
    return starts && (rest.empty() || rest.front() == '/') ? std::optional(rest) : std::nullopt;
}

/// The path, which has no links in it, as it is spelled from `place` on; none when it is not there. The file system is
/// asked only when the place's own spelling says nothing.
std::optional<fs::path> SpelledFrom(const std::string& place, const std::string& path) {
    auto rest = Behind(path, place);
    if (!rest && !place.empty() && !path.empty()) {
        const auto resolved = ResolveWithin(place, kDrivePatience);
        rest = resolved ? Behind(path, resolved->string()) : std::nullopt;
    }
    return rest ? std::optional<fs::path>(place + *rest) : std::nullopt;
}

NodeMessage FileMessage(const fs::path& file) {
    const auto message = Z_MAKE(FolderUpdateMsg);
    message->m_Folder = ToZString(file.parent_path().string());
    message->m_FileName = ToZString(file.filename().string());
    return {"newFile", message};
}

NodeMessage DriveMessage(const ZString& drive, const ZVector<ZString>& drives) {
    const auto message = Z_MAKE(StorageDevicesMsg);
    message->m_AddedDevices = {drive};
    message->m_Devices = drives;
    return {"storagedeviceupdate", message};
}

}  // namespace

ZVector<ZString> ScanOrder::Drives() const {
    std::shared_ptr<ZMessage> told;
    m_bus.PublishWithOutcome(m_bus.GetEndpoint(ZEndpointType::GraphService, "getdevices", 0),
                             Z_MAKE(ZGenericRequestMsg), &told, {true, false, kDrivePatience});
    const auto drives = cast_shared<StorageDevicesMsg>(told);
    return drives ? drives->m_Devices : ZVector<ZString>();
}

ZResult<NodeMessage> ScanOrder::Translate(const ZScanMsg& order) const {
    const std::string wanted = ToStdString(order.m_Path);
    if (!wanted.starts_with('/') || wanted.find('\0') != std::string::npos) {
        return ZError("\"path\" is an absolute path: of a file, or of a drive");
    }
    const auto found = ResolveWithin(wanted, kDrivePatience);
    const std::string path = found ? found->string() : std::string();
    if (const auto file = SpelledFrom(m_updatesFolder, path)) {
        return *file == m_updatesFolder ? ZResult<NodeMessage>(ZError(wanted + " is the updates folder: name a file"))
                                        : FileMessage(*file);
    }
    const ZVector<ZString> drives = Drives();
    for (const ZString& drive : drives) {
        if (const auto file = SpelledFrom(ToStdString(drive), path)) {
            return *file == fs::path(drive) ? DriveMessage(drive, drives) : FileMessage(*file);
        }
    }
    return WhyNot(wanted, drives);
}

/// Says nothing of what is elsewhere: the asker may not be allowed to look there, as this process is.
ZError ScanOrder::WhyNot(const std::string& wanted, const ZVector<ZString>& drives) const {
    const std::string plain = fs::path(wanted).lexically_normal().string();
    const auto seemsBelow = [&plain](const ZString& place) { return Behind(plain, ToStdString(place)).has_value(); };
    if (seemsBelow(ToZString(m_updatesFolder)) || std::ranges::any_of(drives, seemsBelow)) {
        return ZError(wanted + " is not there, or leads to another place by a link");
    }
    return ZError(wanted + " is neither on a drive (arborctl status shows them) nor in the updates folder: " +
                  "put the file on a drive, or upload it");
}

}  // namespace gateway
