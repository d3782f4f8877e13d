#include "ZNodeArborInstallActions.h"
#include "PackageFiles.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ZShared/ZLog.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstallAction)
Z_IMPLEMENT(ZNodeArborInstall_ProcessAction)
Z_IMPLEMENT(ZNodeArborInstall_CheckFileAction)
Z_IMPLEMENT(ZNodeArborInstall_StorageDevicesUpdateAction)
Z_IMPLEMENT(ZNodeArborInstall_ScanDrivesAction)
Z_IMPLEMENT(ZNodeArborInstall_BuildAction)
Z_IMPLEMENT(ZNodeArborInstall_ProgressAction)

bool ZNodeArborInstallAction::ActionThread() {
    try {
        return Work();
    } catch (const std::exception& error) {
        Z_LOG(4, "%s ended: %s", ClassName(), error.what());
        return false;
    }
}

bool ZNodeArborInstall_CheckFileAction::Work() {
    const ZUseFlag::Hold busy(Node().BusyFlag());
    const auto update = ZCAST(FolderUpdateMsg, m_pMessage);
    if (!update) {
        return true;
    }
    const fs::path file = fs::path(update->m_Folder) / fs::path(update->m_FileName);
    Z_LOG(2, "Check File: %s", file);
    auto results = Z_MAKE(ZMessageArray);
    CheckFile(file, results);
    Node().CheckAvailableUpdates(results, true);
    return true;
}

void ZNodeArborInstall_CheckFileAction::CheckFile(const fs::path& file, std::shared_ptr<ZMessageArray>& results) {
    std::error_code error;
    const fs::file_status status = fs::status(file, error);
    if (error) {
        Z_LOG(4, "Error getting file permissions %d", error.value());
        return;
    }
    const bool executable = IsExecutable(status.permissions());
    if (executable && file.extension() == ".pkg") {
        Z_LOG(2, "Found package file %s", file);
        Node().CheckPackageFile(file, results);
        return;
    }
    // The two words are the wrong way round; tools that read these logs know them so.
    Z_LOG(2, "File %s %s", file.filename().c_str(), executable ? "Not Executable" : "is executable");
}

bool ZNodeArborInstall_StorageDevicesUpdateAction::Work() {
    const auto devices = ZCAST(StorageDevicesMsg, m_pMessage);
    if (!devices) {
        return true;
    }
    auto results = Z_MAKE(ZMessageArray);
    // In this order: a drive that left and came back is present afterwards.
    Node().RemoveStorageDevices(devices->m_RemovedDevices);
    Node().ProcessStorageDevices(devices->m_AddedDevices, results);
    Node().CheckAvailableUpdates(results, true);
    return true;
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
        Node().CheckAvailableUpdates(results, false);
    } else if (response) {
        Z_LOG(4, "Unknown response <%s> from getdevices endpoint", response->ClassName());
    }
    Z_LOG(2, "Scan drives Action complete");
    return true;
}

bool ZNodeArborInstall_BuildAction::Work() {
    Node().BuildPackage(ZCAST(ZDeviceCompatibilityMsg, m_pMessage));
    return true;
}

std::optional<int> ZNodeArborInstallAction::MakeRelaySocket(int family) {
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        // Said of the TCP socket too: the text is what people search their logs for.
        Z_LOG(4, "Unable to create UNIX socket: %s", std::strerror(errno));
        return std::nullopt;
    }
    const int flags = ::fcntl(descriptor, F_GETFL);
    if (flags < 0) {
        Z_LOG(4, "fcntl GET failed: %s", std::strerror(errno));
        ::close(descriptor);
        return std::nullopt;
    }
    if (::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0) {
        Z_LOG(4, "Ruh Roh fcntl SET failed: %s", std::strerror(errno));
        ::close(descriptor);
        return std::nullopt;
    }
    return descriptor;
}

void ZNodeArborInstallAction::RelayUntilDone(int socket, bool bUnix) {
    // Whatever ends the loop, an exception too, the socket is closed and the next relay can bind.
    struct Closer {
        ZNodeArborInstallAction& action;
        int socket;
        bool bUnix;
        ~Closer() { action.Node().CloseSocket(socket, bUnix); }
    };
    const Closer closer{*this, socket, bUnix};
    auto stream = ZCAST(ZCommStream, ZShared::ZFactory::Instance().CreateShared("ZJSONCommStream"));
    if (bUnix) {
        Z_LOG(2, "Starting Install Progress socket loop");
    }
    while (m_bRun) {
        if (!Node().SocketLoop(&socket, stream)) {
            m_bRun = false;
        }
    }
    Z_LOG(2, "Closing Install %sProgress socket and exiting", bUnix ? "" : "Remote ");
}

bool ZNodeArborInstall_ProgressAction::Work() {
    if (Node().UpdateVersion().empty()) {
        Z_LOG(4, "No version set for install");
        return false;
    }
    const std::optional<int> descriptor = MakeRelaySocket(AF_UNIX);
    if (!descriptor) {
        return false;
    }
    if (!Node().BindSocket(*descriptor, true)) {
        Z_LOG(4, "Could not bind socket - close and exist progress loop");
        ::close(*descriptor);
        return true;  // the install goes on without its progress
    }
    RelayUntilDone(*descriptor, true);
    return true;
}
