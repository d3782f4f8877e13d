#include <poll.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "InstallerProcess.h"
#include "ZNodeArborInstallActions.h"
#include "ZShared/ZChildReaper.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZPidFd.h"

// What happens to an install's process, while this host lives and over its restarts.

Z_IMPLEMENT(ZNodeArborInstall_InstallAction)

namespace {

// An installer that was asked to end puts things in order first.
constexpr auto kCancelPatience = std::chrono::seconds(20);
// How often is looked for what no descriptor is to be had of.
constexpr auto kLookAgain = std::chrono::milliseconds(500);
constexpr auto kLookSoon = std::chrono::milliseconds(10);
// An installer that was just started has written its record by then, and what a killed one has started has ended.
constexpr auto kRecordPatience = std::chrono::seconds(10);

/// Whether it is this process's child, and so its number its own until it is reaped.
bool IsChild(const ZProcessId& process) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(process.id), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

bool IsThere(const ZProcessId& process) {
    return IsChild(process) || FindProcess(process.id) == process;
}

/// Without a descriptor, which may be what is lacking.
bool HasEnded(const ZProcessId& process) {
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(process.id), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
        return info.si_pid == process.id;
    }
    return ::kill(process.id, 0) != 0 && errno == ESRCH;
}

/// Readable once somebody cancels; negative when the system has none left: the watch must go on all the same.
int CancelDescriptor(ZOperation& operation) {
    try {
        return operation.CancelEvent().Descriptor();
    } catch (const std::system_error&) {
        return -1;
    }
}

}  // namespace

bool ZNodeArborInstall_InstallAction::Work() {
    const auto life = Node().Install();
    if (!life) {
        return true;
    }
    ZOperation& operation = life->Operation();
    if (life->Process().id == 0 && !AwaitRecord(*life)) {
        return true;
    }
    const ZProcessId process = life->Process();
    if (process.id == 0) {
        life->OnEnded(std::nullopt);
        return true;
    }
    const std::string program = "of the install of " + ToStdString(operation.Get()->m_Version);
    const ZFileDescriptor exit(::pidfd_open(process.id, 0));
    std::optional<ZClock::time_point> killAt;
    while (IsThere(process) && !AwaitEnd(exit.Get(), process, operation, killAt)) {
        if (Node().InShutdown()) {
            operation.LeaveOpen();  // the installer goes on, and the host's next life with it
            ZChildReaper::Instance().Watch(process.id, program);
            return true;
        }
        if (killAt && ZClock::now() >= *killAt) {
            EndProcess(process, operation, SIGKILL);
            killAt = ZClock::now() + kCancelPatience;
        } else if (!killAt && operation.CancelReason()) {
            Z_LOG(2, "Cancelling the install of %s", operation.Get()->m_Version);
            EndProcess(process, operation, SIGTERM);
            killAt = ZClock::now() + kCancelPatience;
        }
    }
    auto status = Reap(process, program);
    while (OutlivesItsProcess(operation)) {
        status.reset();  // that was not how the installer ended
        if (Node().InShutdown()) {
            operation.LeaveOpen();
            return true;
        }
        AwaitEnd(-1, process, operation, ZClock::now() + kLookAgain);
    }
    if (!AwaitSlots(*life)) {
        return true;
    }
    ProgressRelay& relay = Node().Relay(true);
    relay.EndWhenRead();
    relay.WaitUntilFree();
    life->OnEnded(status);
    return true;
}

bool ZNodeArborInstall_InstallAction::AwaitRecord(InstallLife& life) {
    return Await(
        life, [&] { return life.FindInstaller(); }, kLookAgain);
}

bool ZNodeArborInstall_InstallAction::AwaitSlots(InstallLife& life) {
    return Await(
        life, [&] { return !life.SlotsAreHeld(); }, kLookSoon);
}

bool ZNodeArborInstall_InstallAction::Await(InstallLife& life, const std::function<bool()>& isSo,
                                            ZClock::duration pause) {
    const auto deadline = ZClock::now() + kRecordPatience;
    while (!isSo() && ZClock::now() < deadline) {
        if (Node().InShutdown()) {
            life.Operation().LeaveOpen();
            return false;
        }
        AwaitEnd(-1, {}, life.Operation(), ZClock::now() + pause);
    }
    return true;
}

bool ZNodeArborInstall_InstallAction::AwaitEnd(int exit, const ZProcessId& process, ZOperation& operation,
                                               std::optional<ZClock::time_point> wakeUp) {
    // Once it was asked to end, its cancel event stays set: nothing to sleep on.
    const int cancel = operation.CancelReason() ? -1 : CancelDescriptor(operation);
    if (exit < 0 || (cancel < 0 && !wakeUp)) {
        wakeUp = std::min(wakeUp.value_or(ZClock::time_point::max()), ZClock::now() + kLookAgain);
    }
    std::array<pollfd, 3> entries{
        {{exit, POLLIN, 0}, {ZStopEvent::OfThisThread()->Descriptor(), POLLIN, 0}, {cancel, POLLIN, 0}}};
    ::poll(entries.data(), entries.size(), PollTimeout(wakeUp));
    return exit < 0 ? HasEnded(process) : entries[0].revents != 0;
}

void ZNodeArborInstall_InstallAction::EndProcess(const ZProcessId& process, const ZOperation& operation, int signal) {
    if (IsThere(process)) {
        EndInstallerProcess(operation, process.id, signal);
    }
}

/// How it ended; unknown of one that an earlier life of this host started.
std::optional<int> ZNodeArborInstall_InstallAction::Reap(const ZProcessId& process, const std::string& program) {
    siginfo_t info{};
    const bool isChild = ::waitid(P_PID, static_cast<id_t>(process.id), &info, WEXITED | WNOWAIT) == 0;
    if (!isChild) {
        return std::nullopt;
    }
    if (info.si_code != CLD_EXITED) {
        // What it left behind must not finish what is now told as failed. Until it is reaped its number is its own.
        ::kill(-process.id, SIGKILL);
    }
    int status = 0;
    while (::waitpid(process.id, &status, 0) < 0) {
        if (errno != EINTR) {
            return std::nullopt;
        }
    }
    ZChildReaper::LogEnd(program, process.id, status);
    return status;
}

std::shared_ptr<ZOperationsMsg> ZNodeArborInstall::AskJournal(const std::shared_ptr<ZOperationsRequestMsg>& request,
                                                              std::chrono::seconds patience) {
    std::shared_ptr<ZMessage> answer;
    const auto outcome = PublishWithOutcome(GetEndpoint(ZEndpointType::GraphService, "operations", 0), request, &answer,
                                            {true, false, patience});
    if (outcome == ZPublishOutcome::NoAnswer) {
        Z_LOG(3, "The journal does not answer");
    }
    return ZCAST(ZOperationsMsg, answer);
}

void ZNodeArborInstall::AwaitNote(const ZOperation& operation) {
    const auto request = Z_MAKE(ZOperationsRequestMsg);
    request->m_Id = operation.Id();
    AskJournal(request, std::chrono::seconds(3));
}

void ZNodeArborInstall::AdoptInstalls() {
    const auto request = Z_MAKE(ZOperationsRequestMsg);
    request->m_Node = Name();
    request->m_State = "Open";
    request->m_Kind = "Install";  // others have no process that could live on
    // It is asked this once, while all of a device may be starting.
    constexpr auto kPatience = std::chrono::seconds(15);
    if (const auto left = AskJournal(request, kPatience)) {
        for (const auto& operation : left->m_Operations) {
            Adopt(*operation);
        }
    }
}

void ZNodeArborInstall::Adopt(const ZOperationMsg& left) {
    const auto operation = AdoptOperation(left);
    const ZProcessId process{left.m_ProcessId, left.m_ProcessStart};
    const auto life = std::make_shared<InstallLife>(operation, m_slots);
    life->OnStarted(process);
    // The host may have ended between the start of an installer and the note of it.
    const bool isNoted = process.id != 0;
    const bool hasEnded = isNoted && FindProcess(process.id) != process;
    if (left.m_BootId != ToZString(BootId()) || (hasEnded && !life->SlotsAreHeld())) {
        operation->ForgetTime();
        life->OnEnded(std::nullopt);
        return;
    }
    if (isNoted && !hasEnded) {
        Z_LOG(2, "The install of %s goes on: its installer (process %d) lives", left.m_Version, process.id);
    }
    m_UpdateVersion.Exchange(left.m_Version);
    m_bUpdateInProgress = true;
    m_install.Exchange(life);
    ZSystemUpdateMsg request;
    if (const auto relay = StartRelay(request); !relay) {
        Z_LOG(4, "Its progress can't be shown: %s", relay.error().text);
    }
    if (!RunAction("Install", nullptr)) {
        m_install.Exchange(nullptr);
        operation->Lose("nothing can watch its installer");
    }
}
