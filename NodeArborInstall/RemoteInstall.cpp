#include <magic_enum/magic_enum.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "PackageFiles.h"
#include "ShellText.h"
#include "ZNodeArborInstallActions.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZScopeEnd.h"
#include "ZShared/ZStopEvent.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstall_RemoteInstallAction)

namespace {

/// This host's address on the way to that one, both IPv4; empty when there is no way. Nothing is sent.
std::string OwnAddressTowards(const std::string& address) {
    sockaddr_in there{};
    there.sin_family = AF_INET;
    there.sin_port = htons(9);  // any will do
    const ZFileDescriptor descriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in here{};
    socklen_t size = sizeof here;
    std::array<char, INET_ADDRSTRLEN> text{};
    const bool known = ::inet_pton(AF_INET, address.c_str(), &there.sin_addr) == 1 &&
                       ::connect(descriptor.Get(), reinterpret_cast<const sockaddr*>(&there), sizeof there) == 0 &&
                       ::getsockname(descriptor.Get(), reinterpret_cast<sockaddr*>(&here), &size) == 0 &&
                       ::inet_ntop(AF_INET, &here.sin_addr, text.data(), text.size()) != nullptr;
    return known ? text.data() : "";
}

}  // namespace

bool ZNodeArborInstall::ListenToAccessory(const std::string& own, const std::string& accessory,
                                          const std::shared_ptr<ZOperation>& operation) {
    constexpr auto kPatience = std::chrono::seconds(5);
    auto install = m_accessoryInstall.Lock();
    // One whose end is told already lets go in a moment.
    install.WaitUntil(m_accessoryFree, ZClock::now() + kPatience, [](const AccessoryInstall& current) {
        return !current.operation || current.operation->IsOpen();
    });
    if (install->operation) {
        return false;
    }
    *install = {own, accessory, operation};
    return true;
}

void ZNodeArborInstall::StopListeningToAccessory() {
    m_accessoryInstall.Exchange({});
    m_accessoryFree.notify_all();
}

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
    if (ZResponseSource(*msg).IsAbandoned()) {
        Z_LOG(3, "The remote install on %s is not begun: whoever asked for it has gone", request->m_SerialNumber);
        return true;
    }
    Z_LOG(2, "About to RunAction(RemoteInstall) for version %s", request->m_Version);
    m_RemoteInstallSerial.Exchange(request->m_SerialNumber);
    m_UpdateVersion.Exchange(request->m_Version);
    // Busy from here on, not only when the action's thread runs: a shutdown request may be next in the queue.
    m_remoteInstallHolds.Lock()->push_back(std::make_shared<ZUseFlag::Hold>(m_bBusy));
    // It is always this device's own version that is installed.
    const ZOperationSubject subject{
        .kind = ZOperationKind::RemoteInstall, .version = m_systemVersion.m_text, .device = request->m_SerialNumber};
    if (!StartJob("RemoteInstall", msg, subject)) {
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

void ZNodeArborInstall_RemoteInstallAction::Answer(bool success, const std::string& reason,
                                                   ZFrameworkErrorCodes::ZErrorCode code) {
    const auto info = std::static_pointer_cast<ZVersionInfoMsg>(m_answer->m_Messages.front());
    info->m_bSuccess = success;
    info->m_ErrorCode = code;
    info->m_ErrorText = ToZString(reason);
    Node().PublishResponse(m_pMessage, m_answer, true, false);
    if (!success) {
        m_operation->Fail(ToZString(reason), code);
    }
}

void ZNodeArborInstall_RemoteInstallAction::Fail(const std::string& reason) {
    if (const auto why = m_operation->CancelReason()) {
        m_operation->Cancel(ToZString("cancelled " + *why));
    } else {
        m_operation->Fail(ToZString(reason));
    }
}

bool ZNodeArborInstall_RemoteInstallAction::Work() {
    const auto request = ZCAST(ZSystemUpdateMsg, m_pMessage);
    if (!request) {
        return true;
    }
    const std::shared_ptr<ZUseFlag::Hold> busy = Node().TakeRemoteInstallHold();
    m_operation = Node().TakeJob(m_pMessage.get(), {.kind = ZOperationKind::RemoteInstall,
                                                    .version = Node().SystemVersion().m_text,
                                                    .device = request->m_SerialNumber});
    const auto info = Z_MAKE(ZVersionInfoMsg);
    info->m_VersionType = "System";
    info->m_bInstalled = false;
    m_answer = Z_MAKE(ZMessageArray);
    m_answer->Add(info);
    const ZStopScope scope(m_operation->CancelEvent());
    Install(*request);
    return true;
}

void ZNodeArborInstall_RemoteInstallAction::Install(const ZSystemUpdateMsg& request) {
    const std::string ownName = OwnName();
    std::string address;
    if (!FindRemoteHostname(address, std::string(magic_enum::enum_name(request.m_DeviceModel)),
                            ToStdString(request.m_SerialNumber))) {
        Z_LOG(4, "Unable to find the QM host name");
        Answer(false, "the accessory was not found in the network");
        return;
    }
    // The progress of one accessory at a time can be told from others'.
    const bool listens = Node().ListenToAccessory(OwnAddressTowards(address), address, m_operation);
    const ZScopeEnd stopListening([&] {
        if (listens) {
            Node().StopListeningToAccessory();
        }
    });
    if (!listens) {
        Answer(false, "another accessory is being installed", ZFrameworkErrorCodes::ERRCODE_BUSY);
        return;
    }
    const ZUseFlag::Hold inProgress(Node().RemoteInstallsFlag());
    const auto info = std::static_pointer_cast<ZVersionInfoMsg>(m_answer->m_Messages.front());
    info->m_Version = Node().SystemVersion().m_text;
    std::string reason;
    const std::string source = Node().PackageFor(info->m_Version, request.m_DeviceModel, reason).string();
    if (source.empty()) {
        Answer(false, reason);
        return;
    }
    if (Node().MayBeExchanged(source)) {
        Z_LOG(4, "Remote install refused: %s is not in the archive", source);
        Answer(false, source +
                          " may be exchanged before the accessory runs it: only packages of the archive are installed "
                          "over ssh. Transfer it, and install it there");
        return;
    }
    if (const auto own = Node().IsArchiveOwn(); !own) {
        Z_LOG(4, "Remote install refused: %s", own.error().text);
        Answer(false, own.error().text);
        return;
    }
    if (!CanStandInCommands(source, ownName)) {
        Answer(false, "a path or a name can't stand in a command line");
        return;
    }
    Answer(true);
    Node().AwaitNote(*m_operation);
    if (RunCommands(MakeCommands(address, source, ownName))) {
        RelayProgress(address);
    }
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
        Fail("the accessory can't be reached by ssh, or its LED can't be set: " + output);
        return false;
    }
    Z_LOG(2, "Execute: %s", commands.folder);
    const bool made = ZPlatform::ExecuteCommand(commands.folder, output);
    Z_LOG(2, "Make directory result %s: %s", made ? "SUCCESS" : "FAILURE", output.c_str());
    Z_LOG(2, "Execute: %s", commands.copy);
    const auto onLine = [this](const std::string& line) { InstallProgress(line, "copy"); };
    if (!ZPlatform::ExecuteCommand(commands.copy, onLine, nullptr)) {
        Z_LOG(4, "Failed to copy update file from remote");
        Fail("the package could not be copied to the accessory");
        return false;
    }
    Z_LOG(2, "Execute: %s", commands.install);
    if (!ZPlatform::ExecuteCommand(commands.install, output)) {
        Z_LOG(4, "Error executing remote install script");
        Fail("the installer could not be started on the accessory: " + output);
        return false;
    }
    Z_LOG(2, "Successfully started remote install install.");
    return true;
}

void ZNodeArborInstall_RemoteInstallAction::RelayProgress(const std::string& address) {
    const std::optional<int> descriptor = MakeRelaySocket(AF_INET);
    if (!descriptor) {
        Fail("there is no socket for the accessory's progress");
        return;
    }
    ProgressRelay& relay = Node().Relay(false);
    relay.WaitUntilFree();
    if (!Node().BindSocket(*descriptor, false)) {
        ::close(*descriptor);
        Fail("the accessory's progress can't be taken: " + relay.Failure());
        return;
    }
    RelayUntilDone(*descriptor, false, [&] { return m_operation->CancelReason() || IsSilent(relay); });
    // Settled by the last document, if one came.
    if (const auto why = m_operation->CancelReason()) {
        m_operation->Lose(ToZString("nobody watches it any more (cancelled " + *why +
                                    "): whether the accessory's installer goes on is not known"));
    }
    Fail("the installer on the accessory (" + address + ") does not report any more: whether it goes on is not known");
}

bool ZNodeArborInstall_RemoteInstallAction::IsSilent(const ProgressRelay& relay) const {
    const auto since = relay.LonelySince();
    return since && ZClock::now() - *since >= std::chrono::seconds(Node().Config().m_AccessoryPatienceSeconds);
}

void ZNodeArborInstall_RemoteInstallAction::InstallProgress(std::string line, std::string component) {
    std::erase(line, '\r');
    Z_LOG(2, "Component %s output = <%s>", component, line);
    const auto digits = FirstGroupIn(line, m_progressPattern);
    if (!digits) {
        return;
    }
    unsigned long percent = 0;
    try {
        percent = std::stoul(*digits, nullptr, 10);
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
    if (m_operation) {
        m_operation->Tell(progress->m_Header, progress->m_Operation, progress->m_Percent);
    }
    if (!Node().Publish(Node().GetEndpoint(ZEndpointType::Progress, "", 0), progress)) {
        Z_LOG(3, "Failed to publish Progress message");
    }
}
