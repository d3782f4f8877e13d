#include "ZNodeArborInstall.h"
#include "ShellText.h"

#include "ZShared/ZPlatform.h"

Z_IMPLEMENT(ZNodeArborInstall)

ZNodeArborInstall::ZNodeArborInstall(const ZString& name)
    : ZNode(name),
      m_relay([this] { return Log(); },
              [this](const std::shared_ptr<InstallProgressMsg>& progress) { OnProgress(true, progress); }),
      m_accessoryRelay([this] { return Log(); },
                       [this](const std::shared_ptr<InstallProgressMsg>& progress) { OnProgress(false, progress); }),
      m_slots(kInstallersSlots) {
    m_logName = ClassName();
}

void ZNodeArborInstall::OnProgress(bool bUnix, const std::shared_ptr<InstallProgressMsg>& progress) {
    Publish(GetEndpoint(ZEndpointType::Progress, "", 0), progress);
    if (bUnix) {
        if (const auto life = m_install.Copy()) {
            life->OnDocument(*progress);
        }
        return;
    }
    if (const auto operation = m_accessoryInstall.Copy().operation) {
        operation->SetStage(progress->m_Header, progress->m_Message, progress->m_Percent);
        if (progress->m_bError) {
            operation->Fail(progress->m_Message.empty() ? "the installer reports an error" : progress->m_Message);
        } else if (progress->m_bDone) {
            operation->Succeed();
        } else {
            operation->Tell(progress->m_Header, progress->m_Message, progress->m_Percent);
        }
    }
}

ZLogger ZNodeArborInstall::Log() const {
    // All lines of the node name one source, whichever file they stand in.
    return ZLogger(m_logName.c_str(), m_logLevel, "NodeArborInstall/ZNodeArborInstall");
}

template <typename Handler>
bool ZNodeArborInstall::SubscribeKeyword(ZEndpointType type, const char* keyword, Handler handler) {
    const MessageFunction function = std::bind(handler, this, std::placeholders::_1);
    return Subscribe(GetEndpoint(type, keyword, 0), function);
}

bool ZNodeArborInstall::InitMessageMap() {
    using Self = ZNodeArborInstall;
    constexpr auto kClient = ZEndpointType::ClientRequest;
    constexpr auto kDevice = ZEndpointType::DeviceRequest;
    constexpr auto kGraph = ZEndpointType::GraphService;
    // The first failure ends the list.
    return ZNode::InitMessageMap() && SubscribeKeyword(kClient, "updatesystem", &Self::OnSystemUpdate) &&
           SubscribeKeyword(kDevice, "remoteinstall", &Self::OnRemoteInstall) &&
           SubscribeKeyword(kGraph, "checkCompatibility", &Self::OnCheckCompatibility) &&
           SubscribeKeyword(kClient, "compareversions", &Self::OnCompareVersions) &&
           SubscribeKeyword(kGraph, "newFile", &Self::OnNewUpdateFile) &&
           SubscribeKeyword(kGraph, "storagedeviceupdate", &Self::OnStorageUpdateDevice) &&
           SubscribeKeyword(kClient, "findupdates", &Self::OnFindUpdates) &&
           SubscribeKeyword(kClient, "getinstalledversioninfo", &Self::OnGetInstalledVersionInfo) &&
           SubscribeKeyword(kDevice, "upload", &Self::OnUpload) &&
           SubscribeKeyword(kDevice, "transfer", &Self::OnTransfer) &&
           SubscribeKeyword(kGraph, "getUpdateInProgress", &Self::OnGetUpdateInProgress) &&
           // Beside the eleven that every client of this node knows:
           SubscribeKeyword(kGraph, "inventory", &Self::OnInventory) &&
           SubscribeKeyword(kClient, "forget", &Self::OnForget) && SubscribeKeyword(kGraph, "trust", &Self::OnTrust) &&
           SubscribeKeyword(kClient, "applytrust", &Self::OnApplyTrust) &&
           SubscribeKeyword(kGraph, "trial", &Self::OnTrial) && SubscribeCancel();
}

bool ZNodeArborInstall::OnGraphCreated() {
    RunAction("ScanDrives", nullptr);
    const auto request = Z_MAKE(ZGenericRequestMsg);
    std::shared_ptr<ZMessage> response;
    Publish(GetEndpoint(ZEndpointType::GraphService, "deviceProps", 0), request, &response, true, false);
    m_pDeviceProperties = ZCAST(ZDevicePropertiesMsg, response);
    if (!m_pDeviceProperties) {
        Z_LOG(4, "Could not get Device Properties");
    }
    AdoptInstalls();
    return true;
}

bool ZNodeArborInstall::OnShutdownRequest(bool) {
    m_bShutdownRequested = true;
    return !m_bBusy;
}

std::string ZNodeArborInstall::ShellEscape(const std::string& text) {
    return ShellQuoted(text);
}

bool ZNodeArborInstall::RunCommand(const std::string& commandLine) {
    Z_LOG(2, "Running command: %s", commandLine);
    std::string output;
    const bool succeeded = ZPlatform::ExecuteCommand(commandLine, output);
    if (succeeded) {
        Z_LOG(2, "Successfully ran command: %s", commandLine);
    } else {
        Z_LOG(4, "Command failure result: %s", output);
    }
    return succeeded;
}

std::shared_ptr<ZUseFlag::Hold> ZNodeArborInstall::TakeRemoteInstallHold() {
    const auto holds = m_remoteInstallHolds.Lock();
    if (holds->empty()) {
        return nullptr;
    }
    auto hold = std::move(holds->back());
    holds->pop_back();
    return hold;
}

const ZNodeArborInstallCfg& ZNodeArborInstall::Config() const {
    static const ZNodeArborInstallCfg kDefaults;
    return m_pConfig ? *m_pConfig : kDefaults;
}

ProgressRelay::Place ZNodeArborInstall::RelayPlace(bool bUnix) const {
    ProgressRelay::Place place{
        bUnix, m_archivePath, std::filesystem::path(Config().m_ProgressPath), Config().m_ProgressPort, {}, {}};
    if (!bUnix) {
        const auto install = m_accessoryInstall.Lock();
        place.address = install->own;
        place.peer = install->accessory;
    }
    return place;
}

bool ZNodeArborInstall::BindSocket(int sockfd, bool bUnix) {
    return Relay(bUnix).Bind(sockfd, RelayPlace(bUnix));
}

void ZNodeArborInstall::CloseSocket(int sockfd, bool bUnix) {
    Relay(bUnix).Close(sockfd, RelayPlace(bUnix));
}

bool ZNodeArborInstall::SocketLoop(int* pSockfd, std::shared_ptr<ZCommStream>& stream) {
    return Relay(!m_accessoryRelay.IsBoundTo(*pSockfd)).Pass(*pSockfd, *stream);
}
