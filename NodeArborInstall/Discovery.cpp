#include "ZNodeArborInstall.h"
#include "ZShared/ZLog.h"

bool ZNodeArborInstall::OnNewUpdateFile(const std::shared_ptr<ZMessage>& message) {
    const auto update = ZCAST(FolderUpdateMsg, message);
    if (!update) {
        Z_LOG(4, "Unknown message %s", message->ClassName());
        return true;
    }
    Z_LOG(2, "Scan file %s in folder %s", update->m_FileName, update->m_Folder);
    RunAction("CheckFile", message);
    return true;
}

bool ZNodeArborInstall::OnStorageUpdateDevice(const std::shared_ptr<ZMessage>& message) {
    if (!ZCAST(StorageDevicesMsg, message)) {
        return true;
    }
    Z_LOG(2, "Running StorageDevicesUpdate Action");
    RunAction("StorageDevicesUpdate", message);
    return true;
}

bool ZNodeArborInstall::OnFindUpdates(std::shared_ptr<ZMessage>& request) {
    const auto answer = Z_MAKE(ZMessageArray);
    const PackageTable packages = KnownPackages();
    for (const auto& [version, path] : packages) {
        Z_LOG(2, "Notify Software update version %s: %s", version.Get(), path);
        answer->Add(MakeUpdateRecord(version));
    }
    if (packages.empty()) {
        Z_LOG(2, "No software packages found");
    }
    PublishResponse(request, answer, true, false);
    return true;
}
