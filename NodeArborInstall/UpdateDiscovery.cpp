#include "PackageFiles.h"
#include "ZNodeArborInstallActions.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstall_CheckFileAction)
Z_IMPLEMENT(ZNodeArborInstall_StorageDevicesUpdateAction)
Z_IMPLEMENT(ZNodeArborInstall_ScanDrivesAction)

bool ZNodeArborInstall::OnNewUpdateFile(const std::shared_ptr<ZMessage>& message) {
    const auto update = ZCAST(FolderUpdateMsg, message);
    if (!update) {
        Z_LOG(4, "Unknown message %s", message->ClassName());
        return true;
    }
    Z_LOG(2, "Scan file %s in folder %s", update->m_FileName, update->m_Folder);
    RunBounded("CheckFile", message);
    return true;
}

bool ZNodeArborInstall::OnStorageUpdateDevice(const std::shared_ptr<ZMessage>& message) {
    const auto devices = ZCAST(StorageDevicesMsg, message);
    if (!devices) {
        return true;
    }
    Z_LOG(2, "Running StorageDevicesUpdate Action");
    EndChecksOf(devices->m_RemovedDevices);
    // From now on: a drive that leaves before its turn comes is not looked at.
    for (const ZString& drive : devices->m_AddedDevices) {
        BeginJob(message, {.kind = ZOperationKind::Scan, .file = drive});
    }
    if (!RunBounded("StorageDevicesUpdate", message)) {
        RemoveStorageDevices(devices->m_RemovedDevices);  // what has gone is not offered until its turn comes
    }
    return true;
}

bool ZNodeArborInstall::OnFindUpdates(std::shared_ptr<ZMessage>& request) {
    const ZAnswerLines answers;
    const auto answer = Z_MAKE(ZMessageArray);
    const auto packages = m_tables.Packages();
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

/// At once, whatever waits: what hangs on a drive ends when the drive has gone. Scans first: a check that one of them
/// begins meanwhile is either seen here, or sees that its scan is to end.
void ZNodeArborInstall::EndChecksOf(const ZVector<ZString>& drives) {
    for (const ZOperationKind kind : {ZOperationKind::Scan, ZOperationKind::Check}) {
        for (const auto& operation : Operations()) {
            for (const ZString& drive : drives) {
                const fs::path root = fs::path(drive).lexically_normal();
                if (operation->Kind() == kind && !root.empty() &&
                    VersionTables::IsOnDrive(fs::path(operation->File()), root)) {
                    operation->AskToCancel("because its drive was removed");
                }
            }
        }
    }
}

bool ZNodeArborInstall_CheckFileAction::Work() {
    WorkOff("CheckFile", [this] {
        const ZUseFlag::Hold busy(Node().BusyFlag());
        if (const auto update = ZCAST(FolderUpdateMsg, m_pMessage)) {
            LookAt(*update);
        }
    });
    return true;
}

void ZNodeArborInstall_CheckFileAction::LookAt(const FolderUpdateMsg& update) {
    const fs::path file = fs::path(update.m_Folder) / fs::path(update.m_FileName);
    auto results = Z_MAKE(ZMessageArray);
    if (update.m_bGone) {
        if (Node().ForgetFile(file)) {
            Node().CheckAvailableUpdates(results, true);
        }
        return;
    }
    Z_LOG(2, "Check File: %s", file);
    const ZOperationSubject trust{.kind = ZOperationKind::Trust, .file = ToZString(file.string())};
    if (file.filename() == kTrustFileName && Node().FollowFile(file, trust, m_pMessage.get())) {
        if (Node().IsUpload(file)) {  // any other is somebody's own
            std::error_code ignored;
            fs::remove(file, ignored);
        }
        return;
    }
    CheckFile(file, results);
    const auto told = ZCAST(ZMessageArray, ZNodeComm::CloneMessage(results));
    Node().CheckAvailableUpdates(results, true);
    Node().RemoveRefusedUploads(*told);
}

void ZNodeArborInstall_CheckFileAction::CheckFile(const fs::path& file, std::shared_ptr<ZMessageArray>& results) {
    std::error_code error;
    const fs::file_status status = fs::status(file, error);
    if (error) {
        Z_LOG(4, "Error getting file permissions %d", error.value());
        if (error == std::errc::no_such_file_or_directory) {
            Node().ForgetFile(file);
        }
        return;
    }
    if (Node().MayBePackage(file, status.permissions()) && file.extension() == ".pkg") {
        Z_LOG(2, "Found package file %s", file);
        Node().CheckNow(file, results, m_pMessage.get());
        return;
    }
    Node().ForgetFile(file);  // one that was offered may no longer be run
    // The two words are the wrong way round; tools that read these logs know them so.
    Z_LOG(2, "File %s %s", file.filename().c_str(),
          IsExecutable(status.permissions()) ? "Not Executable" : "is executable");
}

bool ZNodeArborInstall_StorageDevicesUpdateAction::Work() {
    WorkOff("StorageDevicesUpdate", [this] {
        if (const auto devices = ZCAST(StorageDevicesMsg, m_pMessage)) {
            LookAt(*devices);
        }
    });
    return true;
}

void ZNodeArborInstall_StorageDevicesUpdateAction::LookAt(const StorageDevicesMsg& devices) {
    auto results = Z_MAKE(ZMessageArray);
    // In this order: a drive that left and came back is present afterwards.
    Node().RemoveStorageDevices(devices.m_RemovedDevices);
    Node().ScanDrives(devices.m_AddedDevices, results, m_pMessage.get());
    Node().CheckAvailableUpdates(results, true);
}

bool ZNodeArborInstall_ScanDrivesAction::Work() {
    const auto request = Z_MAKE(ZGenericRequestMsg);
    Z_LOG(2, "Get existing storage devices");
    std::shared_ptr<ZMessage> response;
    Node().Publish(Node().GetEndpoint(ZEndpointType::GraphService, "getdevices", 0), request, &response, true, false);
    if (const auto devices = ZCAST(StorageDevicesMsg, response)) {
        Z_LOG(2, "Scanning %d drives for updates", static_cast<int>(devices->m_Devices.size()));
        auto results = Z_MAKE(ZMessageArray);
        Node().ProcessStorageDevices(devices->m_Devices, results);
        Node().ProcessStorageDevices({ToZString(Node().UpdatesPath().string())}, results);
        const auto told = ZCAST(ZMessageArray, ZNodeComm::CloneMessage(results));
        Node().CheckAvailableUpdates(results, false);
        Node().RemoveRefusedUploads(*told);
    } else if (response) {
        Z_LOG(4, "Unknown response <%s> from getdevices endpoint", response->ClassName());
    }
    Z_LOG(2, "Scan drives Action complete");
    return true;
}
