#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <numeric>

#include "InstallerProcess.h"
#include "PackageFiles.h"
#include "ZNodeArborInstallActions.h"
#include "ZShared/ZChildReaper.h"
#include "ZShared/ZCommandRunner.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZScopeEnd.h"

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstall_ProcessAction)
Z_IMPLEMENT(ZNodeArborInstall_ProgressAction)

bool ZNodeArborInstall::OnSystemUpdate(const std::shared_ptr<ZMessage>& msg) {
    using Codes = ZFrameworkErrorCodes;
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
    const auto operation = BeginOperation({.kind = ZOperationKind::Install, .version = request->m_Version}, msg.get());
    try {
        fs::path package;
        const bool found = FindPackage(request->m_Version, package);
        // Asked last: finding it may have taken a while.
        if (ZResponseSource(*msg).IsAbandoned()) {
            Z_LOG(3, "Installing %s is not begun: whoever asked for it has gone", request->m_Version);
            operation->Cancel("whoever asked for it has gone");
            return true;
        }
        if (found) {
            StartInstaller(package, *request, *answer, operation);
        } else {
            LogMissingPackage(request->m_Version);
            answer->m_bSuccess = false;
            // Clients tell a missing package from a broken one by the absence of an error code.
            answer->m_ErrorCode = Codes::ERRCODE_NONE;
            operation->Fail(package.empty() ? "no package of this version is known"
                                            : "the package " + ToZString(package.string()) +
                                                  " is gone, or its drive does not answer",
                            Codes::ERRCODE_NOT_FOUND);
        }
    } catch (const std::exception& error) {
        Z_LOG(4, "Could not find package for software version %s", request->m_Version);
        if (const auto life = m_install.Copy(); life && &life->Operation() == operation.get()) {
            life->OnNotStarted(error.what(), Codes::ERRCODE_NONE);
        }
        operation->Fail(error.what());
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
                                       ZVersionInfoMsg& answer, const std::shared_ptr<ZOperation>& operation) {
    using Codes = ZFrameworkErrorCodes;
    const auto refuse = [&](const std::string& reason, Codes::ZErrorCode code) {
        Z_LOG(code == Codes::ERRCODE_BUSY ? 3 : 4, "Installing %s is refused: %s", request.m_Version, reason);
        answer.m_bSuccess = false;
        answer.m_ErrorCode = code;
        answer.m_ErrorText = ToZString(reason);
        operation->Fail(answer.m_ErrorText, code);
    };
    const auto running = m_install.Copy();
    if (running) {
        running->AwaitEndOfTold();
    }
    if (running && running->IsAlive()) {
        const bool isOpen = running->Operation().IsOpen();
        refuse(ToStdString(running->Operation().Get()->m_Version) +
                   (isOpen ? " is being installed" : " was installed just now: its installer has not ended yet"),
               Codes::ERRCODE_BUSY);
        return;
    }
    if (const auto free = MayBeReplaced(); !free) {
        refuse(free.error().text, Codes::ERRCODE_BUSY);
        return;
    }
    const auto approved = PackageToInstall(package, request.m_Version);
    if (!approved) {
        refuse(approved.error().text, Codes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE);
        return;
    }
    m_UpdateVersion.Exchange(request.m_Version);
    if (const auto relay = StartRelay(request); !relay) {
        refuse("its progress can't be shown: " + relay.error().text, Codes::ERRCODE_INVALID_REQUEST);
        return;
    }
    operation->SetFile(ToZString(package.string()));
    Launch(*approved, request, answer, operation);
}

void ZNodeArborInstall::Launch(const PackageTrust::Approved& package, const ZSystemUpdateMsg& request,
                               ZVersionInfoMsg& answer, const std::shared_ptr<ZOperation>& operation) {
    bool isStarted = false;
    const ZScopeEnd end([&] {
        if (!isStarted) {
            StopRelay();  // whatever went wrong: the next install needs the relay's place
        }
    });
    operation->Start();
    AwaitNote(*operation);
    const auto life = std::make_shared<InstallLife>(operation, m_slots);
    m_install.Exchange(life);
    const std::vector<std::string> arguments = InstallerArguments(fs::path(operation->Get()->m_File), request);
    // Logged run together, as tools that read these logs expect it.
    const std::string command = std::accumulate(arguments.begin(), arguments.end(), std::string());
    Z_LOG(2, "Software update command %s", command);
    const ZSealedProgram sealed{package.program.Get(), package.Source()};
    // Making the relay ready may have taken longer than its asker waits.
    const auto started = ZResponseSource(request).IsAbandoned()
                             ? ZResult<void>(ZError("whoever asked for it has gone"))
                             : RunInstaller(arguments, life, package.program ? &sealed : nullptr);
    m_bUpdateInProgress = isStarted = started.has_value();
    Z_LOG(2, "Software update command %s", started ? "SUCCESS" : "FAILURE");
    answer.m_bSuccess = started.has_value();
    answer.m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;
    if (!started) {
        Z_LOG(4, "Unable to start install process. Kill the progress action");
        answer.m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE;
        answer.m_ErrorText = ToZString(started.error().text);
        life->OnNotStarted("the installer could not be started: " + answer.m_ErrorText, answer.m_ErrorCode);
    }
}

ZResult<PackageTrust::Approved> ZNodeArborInstall::PackageToInstall(const fs::path& package, const ZString& version) {
    if (!m_trust.IsOn()) {
        return PackageTrust::Approved();
    }
    auto approved = Approve(package, kReadPatience);
    const ZSoftwareVersion found(approved ? ToZString(approved->package.version) : ZString());
    const bool isIt = approved && found == ZSoftwareVersion(version);
    const bool isAllowed = isIt && IsVersionAllowed(found, package);
    const auto offered = isAllowed ? MayBeOffered(found.m_text, ImageDigest(approved->package)) : ZResult<void>();
    if (isAllowed && offered) {
        return approved;
    }
    constexpr auto kInvalid = ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE;
    const ZError why = !approved    ? approved.error()
                       : !isIt      ? ZError("it is another version by now", kInvalid)
                       : !isAllowed ? ZError("it is older than what is installed", kInvalid)
                                    : offered.error();
    const ZString path = ToZString(package.string());
    if (why.code == ZFrameworkErrorCodes::ERRCODE_NONE) {
        return why;  // nothing was found out about it: its drive may be slow
    }
    Z_LOG(4, "Verification failed on %s: %s", path, why.text);
    ForgetFile(package);
    KeepRefused(version, path, why, std::nullopt);
    auto results = Z_MAKE(ZMessageArray);
    AddInvalidPackage(results, version, path, kInvalid);
    CheckAvailableUpdates(results, true);
    return why;
}

/// The relay's socket has to listen before the installer connects, which it may do only once.
ZResult<void> ZNodeArborInstall::StartRelay(const ZSystemUpdateMsg& request) {
    m_relay.WaitUntilFree();  // an install that could not be started leaves one that is about to end
    m_relay.Announce();
    const bool listens = RunAction("Progress", nullptr) && m_relay.WaitUntilListening();
    // An installer that reports to another device goes without this one's.
    if (listens || !request.m_ProgressHost.empty()) {
        return {};
    }
    StopRelay();
    const std::string reason = m_relay.Failure();
    return ZError(reason.empty() ? "the relay did not start" : reason);
}

void ZNodeArborInstall::StopRelay() {
    if (m_relay.IsBound()) {  // else the newest action is another one
        StopAction(false);
        m_relay.EndWhenRead();
    }
}

ZResult<void> ZNodeArborInstall::RunInstaller(const std::vector<std::string>& arguments,
                                              const std::shared_ptr<InstallLife>& life, const ZSealedProgram* sealed) {
    if (InShutdown()) {  // a request that was still queued has no requester any more
        return ZError("the host stops");
    }
    const auto process = StartInstallerProcess(arguments, life->Operation(), sealed);
    if (!process) {
        return process.error();
    }
    life->OnStarted(FindProcess(*process).value_or(ZProcessId{*process, 0}));
    if (RunAction("Install", nullptr)) {
        return {};
    }
    // What nobody watches must not run.
    EndInstallerProcess(life->Operation(), *process, SIGKILL);
    ZChildReaper::Instance().Watch(*process, arguments.front());
    return ZError("nothing can watch it");
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
    const ZScopeEnd decide([this] { Node().Relay(true).Abandon(); });  // unless it was bound
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
        return true;  // an install that reports here is not begun then
    }
    RelayUntilDone(*descriptor, true, [] { return false; });
    return true;
}
