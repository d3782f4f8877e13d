#include <magic_enum/magic_enum.hpp>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "PackageFiles.h"
#include "ShellText.h"
#include "ZNodeArborInstallActions.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZScopeEnd.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstall_RemoteInstallAction)

bool ZNodeArborInstall::OnRemoteInstall(std::shared_ptr<ZMessage>& msg) {
    if (InShutdown() || m_bShutdownRequested) {
        const auto refusal = Z_MAKE(ZVersionInfoMsg);
        refusal->m_VersionType = "System";
        refusal->m_bInstalled = false;
        refusal->m_bSuccess = false;
        refusal->m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;
        const auto answer = Z_MAKE(ZMessageArray);
        answer->Add(refusal);
        PublishResponse(msg, answer, true, false);
        return true;
    }
    const auto request = ZCAST(ZSystemUpdateMsg, msg);
    if (!request) {
        return true;
    }
    Z_LOG(2, "About to RunAction(RemoteInstall) for version %s", request->m_Version);
    m_RemoteInstallSerial.Exchange(request->m_SerialNumber);
    m_UpdateVersion.Exchange(request->m_Version);
    // Busy from here on, not only when the action's thread runs: a shutdown request may be next in the queue.
    m_remoteInstallHolds.Lock()->push_back(std::make_shared<ZUseFlag::Hold>(m_bBusy));
    if (!RunAction("RemoteInstall", msg)) {
        TakeRemoteInstallHold();
    }
    return true;
}

/// The accessory's command lines. Nothing in them is quoted, so all that goes in is checked before.
struct ZNodeArborInstall_RemoteInstallAction::Commands {
    std::string led;
    std::string folder;
    std::string copy;
    std::string install;
};

bool ZNodeArborInstall_RemoteInstallAction::FindRemoteHostname(std::string& address, const std::string& modelName,
                                                               const std::string& serialNumber) {
    const std::string ownName = modelName + "-" + serialNumber + ".local";
    if (!IsPlainShellWord(ownName)) {
        // No other name is tried either: it would be another device's.
        Z_LOG(4, "Host name <%s> can't stand in a command line", ownName);
        return false;
    }
    return TryHostname(ownName, address) || TryHostname(ToStdString(Node().AccessoryHostName()), address) ||
           TryHostname(ToStdString(Node().DeviceHostName()), address);
}

bool ZNodeArborInstall_RemoteInstallAction::TryHostname(const std::string& candidate, std::string& address) {
    if (candidate.empty()) {
        return false;
    }
    if (!IsPlainShellWord(candidate)) {
        Z_LOG(4, "Host name <%s> can't stand in a command line", candidate);
        return false;
    }
    std::string output;
    if (!ZPlatform::ExecuteCommand("avahi-resolve -4 -n " + candidate + " | awk '{print $2}'", output)) {
        return false;
    }
    output = WithoutTrailingSpace(output);
    if (output.empty()) {
        Z_LOG(2, "Did not resolve address for host %s: <%s>", candidate, output);
        return false;
    }
    if (!IsIPv4Address(output)) {
        Z_LOG(4, "What host %s resolves to is not one IPv4 address: <%s>", candidate, output);
        return false;
    }
    Z_LOG(2, "Resolved host name <%s> to address <%s>", candidate, output);
    address = output;
    return true;
}

std::string ZNodeArborInstall_RemoteInstallAction::OwnName() {
    std::string name;
    ZPlatform::ExecuteCommand("hostname", name);
    name = WithoutTrailingSpace(name);
    return name.empty() ? name : name + ".local";
}

bool ZNodeArborInstall_RemoteInstallAction::CanStandInCommands(const std::string& source,
                                                               const std::string& ownName) const {
    const std::string folder = Node().UpdatesPath().string();
    const bool can = IsPlainShellWord(source) && IsPlainShellWord(folder) && IsPlainShellWord(ownName, true);
    if (!can) {
        Z_LOG(4, "Remote install refused: <%s>, <%s> or <%s> can't stand in a command line", source, folder, ownName);
    }
    return can;
}

void ZNodeArborInstall_RemoteInstallAction::Answer(const std::shared_ptr<ZMessageArray>& answer, bool success) {
    std::static_pointer_cast<ZVersionInfoMsg>(answer->m_Messages.front())->m_bSuccess = success;
    Node().PublishResponse(m_pMessage, answer, true, false);
}

bool ZNodeArborInstall_RemoteInstallAction::Work() {
    const auto request = ZCAST(ZSystemUpdateMsg, m_pMessage);
    if (!request) {
        return true;
    }
    const std::shared_ptr<ZUseFlag::Hold> busy = Node().TakeRemoteInstallHold();
    const ZScopeEnd clear([this] { Node().SetUpdateInProgress(false); });
    const auto info = Z_MAKE(ZVersionInfoMsg);
    info->m_VersionType = "System";
    info->m_bInstalled = false;
    const auto answer = Z_MAKE(ZMessageArray);
    answer->Add(info);

    const std::string ownName = OwnName();
    std::string address;
    if (!FindRemoteHostname(address, std::string(magic_enum::enum_name(request->m_DeviceModel)),
                            ToStdString(request->m_SerialNumber))) {
        Z_LOG(4, "Unable to find the QM host name");
        Answer(answer, false);
        return true;
    }
    Node().SetUpdateInProgress(true);
    info->m_Version = Node().SystemVersion().m_text;
    const std::string source = Node().GetPackage(info->m_Version).string();
    if (source.empty()) {
        Answer(answer, false);
        return true;
    }
    const bool canRun = CanStandInCommands(source, ownName);
    Answer(answer, canRun);
    if (canRun && RunCommands(MakeCommands(address, source, ownName))) {
        RelayProgress();
    }
    return true;
}

ZNodeArborInstall_RemoteInstallAction::Commands ZNodeArborInstall_RemoteInstallAction::MakeCommands(
    const std::string& address, const std::string& source, const std::string& ownName) const {
    const std::string folder = Node().UpdatesPath().string();
    const std::string remote = (Node().UpdatesPath() / fs::path(source).filename()).string();
    const std::string port = std::to_string(Node().Config().m_ProgressPort);
    const std::string ssh = "ssh -y -T root@" + address;
    return {ssh + " '/usr/sbin/i2cset -y -f 1 48 4 0x62;/usr/sbin/i2cset -y -f 1 48 2 0x81; ' 2>&1",
            ssh + " '[ -f " + folder + " ] && rm -fr " + folder + ";[ -d " + folder + " ] || mkdir -p " + folder + "'",
            "rsync -azP -e \"ssh -y\" " + source + " root@" + address + ":" + remote,
            ssh + " '" + remote + " --socket=2 --port=" + port + " --addr=" + ownName + " --dir=" + kInstallersArchive +
                " >> /usr/share/Logs/arbor_qm.log 2>&1 &'"};
}

bool ZNodeArborInstall_RemoteInstallAction::RunCommands(const Commands& commands) {
    std::string output;
    Z_LOG(2, "Execute: %s", commands.led);
    if (!ZPlatform::ExecuteCommand(commands.led, output)) {
        Z_LOG(4, "Unable to set LED on remote machine - Result = <%s>!", output);
        return false;
    }
    Z_LOG(2, "Execute: %s", commands.folder);
    const bool made = ZPlatform::ExecuteCommand(commands.folder, output);
    Z_LOG(2, "Make directory result %s: %s", made ? "SUCCESS" : "FAILURE", output.c_str());
    Z_LOG(2, "Execute: %s", commands.copy);
    const auto onLine = [this](const std::string& line) { InstallProgress(line, "copy"); };
    if (!ZPlatform::ExecuteCommand(commands.copy, onLine, nullptr)) {
        Z_LOG(4, "Failed to copy update file from remote");
        return false;
    }
    Z_LOG(2, "Execute: %s", commands.install);
    if (!ZPlatform::ExecuteCommand(commands.install, output)) {
        Z_LOG(4, "Error executing remote install script");
        return false;
    }
    Z_LOG(2, "Successfully started remote install install.");
    return true;
}

void ZNodeArborInstall_RemoteInstallAction::RelayProgress() {
    const std::optional<int> descriptor = MakeRelaySocket(AF_INET);
    if (!descriptor) {
        return;
    }
    if (Node().BindSocket(*descriptor, false)) {
        RelayUntilDone(*descriptor, false);
    } else {
        ::close(*descriptor);
    }
}

void ZNodeArborInstall_RemoteInstallAction::InstallProgress(std::string line, std::string component) {
    std::erase(line, '\r');
    Z_LOG(2, "Component %s output = <%s>", component, line);
    std::smatch match;
    if (!std::regex_search(line, match, m_progressPattern) || !match[1].matched) {
        return;
    }
    unsigned long percent = 0;
    try {
        percent = std::stoul(match[1].str(), nullptr, 10);
    } catch (const std::invalid_argument&) {
        Z_LOG(3, "Invalid argument in copy progress number conversion");
        return;
    } catch (const std::out_of_range&) {
        Z_LOG(3, "Out of range in copy progress number conversion");
        return;
    }
    const auto progress = Z_MAKE(InstallProgressMsg);
    progress->m_Operation = ToZString(component);
    progress->m_Header = "Transfer install package";
    progress->m_Percent = static_cast<std::int32_t>(percent);
    Z_LOG(2, "Progress %s %u %%", component, static_cast<unsigned>(percent));
    if (!Node().Publish(Node().GetEndpoint(ZEndpointType::Progress, "", 0), progress)) {
        Z_LOG(3, "Failed to publish Progress message");
    }
}
