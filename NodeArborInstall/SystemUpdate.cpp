#include <sys/socket.h>
#include <unistd.h>

#include <numeric>

#include "PackageFiles.h"
#include "ZNodeArborInstallActions.h"
#include "ZShared/ZPlatform.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstall_ProcessAction)
Z_IMPLEMENT(ZNodeArborInstall_ProgressAction)

bool ZNodeArborInstall::OnSystemUpdate(const std::shared_ptr<ZMessage>& msg) {
    const auto request = ZCAST(ZSystemUpdateMsg, msg);
    if (!request) {
        return true;
    }
    Z_LOG(2, "Find package for version <%s> <%s-%s>", request->m_Version, request->m_DeviceModel,
          request->m_SerialNumber);
    const auto answer = Z_MAKE(ZVersionInfoMsg);
    answer->m_Version = request->m_Version;
    answer->m_VersionType = "System";
    answer->m_bInstalled = false;
    try {
        fs::path package;
        if (FindPackage(request->m_Version, package)) {
            StartInstaller(package, *request, *answer);
        } else {
            LogMissingPackage(request->m_Version);
            answer->m_bSuccess = false;
            // Clients tell a missing package from a broken one by the absence of an error code.
            answer->m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;
        }
    } catch (const std::exception&) {
        Z_LOG(4, "Could not find package for software version %s", request->m_Version);
        return true;
    }
    PublishResponse(msg, answer, true, false);
    return true;
}

void ZNodeArborInstall::LogMissingPackage(const ZString& version) {
    const auto builds = m_tables.Builds();
    Z_LOG(4, "No update file for package %s checked %d", version, static_cast<int>(builds.size()));
    for (const auto& [archived, path] : builds) {
        Z_LOG(4, "Version %s: %s", archived.Get(), path);
    }
}

void ZNodeArborInstall::StartInstaller(const fs::path& package, const ZSystemUpdateMsg& request,
                                       ZVersionInfoMsg& answer) {
    m_UpdateVersion.Exchange(request.m_Version);
    // The relay's socket has to listen before the installer connects, which it may do only once.
    m_relay.Announce();
    const bool relaying = RunAction("Progress", nullptr);
    if (relaying) {
        m_relay.WaitUntilDecided();
    }
    const std::vector<std::string> arguments = InstallerArguments(package, request);
    // Logged run together, as tools that read these logs expect it.
    const std::string command = std::accumulate(arguments.begin(), arguments.end(), std::string());
    Z_LOG(2, "Software update command %s", command);
    // A request that was still queued when the graph began to end has no requester any more.
    const bool started = !InShutdown() && ZPlatform::ExecuteCommand(arguments);
    m_bUpdateInProgress = started;
    Z_LOG(2, "Software update command %s", started ? "SUCCESS" : "FAILURE");
    answer.m_bSuccess = started;
    answer.m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;
    if (!started) {
        Z_LOG(4, "Unable to start install process. Kill the progress action");
        if (relaying) {  // else the newest action is another one
            StopAction(false);
        }
        answer.m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE;
    }
}

std::vector<std::string> ZNodeArborInstall::InstallerArguments(const fs::path& package,
                                                               const ZSystemUpdateMsg& request) {
    std::vector<std::string> arguments{package.string(), "--skip-verify", std::string("--dir=") + kInstallersArchive};
    if (request.m_ProgressHost.empty()) {
        arguments.insert(arguments.end(), {"--sock=1", "--addr=progress"});
    } else {
        arguments.insert(arguments.end(), {"--sock=2", "--port=" + std::to_string(Config().m_ProgressPort),
                                           "--addr=" + ToStdString(request.m_ProgressHost) + ".local"});
    }
    if (!request.m_bReboot) {
        Z_LOG(2, "Setting NO REBOOT flag for the installer");
        arguments.emplace_back("--no-reboot");
    }
    if (Config().m_bDryRun) {
        arguments.emplace_back("--dry-run");
    }
    return arguments;
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
