#pragma once

#include <functional>
#include <optional>
#include <regex>

#include "NodeBase/ZNodeAction.h"
#include "ShellText.h"
#include "ZNodeArborInstall.h"

/// What the node's worker actions share; no class of its own to the factory. Each is started with RunAction under the
/// part of its name between "_" and "Action".
class ZNodeArborInstallAction : public ZNodeAction {
public:
    /// Does the action's work. An exception that ends it is logged.
    bool ActionThread() final;

protected:
    ZLogger Log() const { return ZLogger(m_logName.c_str(), m_logLevel, "NodeArborInstall/ZNodeArborInstallActions"); }
    virtual bool Work() = 0;
    ZNodeArborInstall& Node() const { return *static_cast<ZNodeArborInstall*>(m_pNode); }
    /// Works its message off, and then those that wait for an action of this name.
    void WorkOff(const char* name, const std::function<void()>& lookAtMessage);
    /// Relays installer progress over a bound socket until a document, the node, or `isOver` ends it, then closes it.
    void RelayUntilDone(int socket, bool bUnix, const std::function<bool()>& isOver);
    /// A non-blocking stream socket; none, and a log line, on failure.
    std::optional<int> MakeRelaySocket(int family);
};

/// An empty worker, kept for its registered name.
class ZNodeArborInstall_ProcessAction : public ZNodeAction {
    Z_CLASS(ZNodeArborInstall_ProcessAction, ZNodeAction)
public:
    bool ActionThread() override { return true; }
};

/// Checks the file that a FolderUpdateMsg names, and announces what there is.
class ZNodeArborInstall_CheckFileAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_CheckFileAction, ZNodeAction)
private:
    bool Work() override;
    void LookAt(const FolderUpdateMsg& update);
    void CheckFile(const std::filesystem::path& file, std::shared_ptr<ZMessageArray>& results);
};

/// Forgets the packages of drives that left and scans those that came.
class ZNodeArborInstall_StorageDevicesUpdateAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_StorageDevicesUpdateAction, ZNodeAction)
private:
    bool Work() override;
    void LookAt(const StorageDevicesMsg& devices);
};

/// Scans, once after start-up, the drives that are there.
class ZNodeArborInstall_ScanDrivesAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_ScanDrivesAction, ZNodeAction)
private:
    bool Work() override;
};

/// Checks all known packages again, once another trust document is in force, and announces what there is.
class ZNodeArborInstall_JudgeAgainAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_JudgeAgainAction, ZNodeAction)
private:
    bool Work() override;
};

/// Builds a package for the accessory's board; its message is a ZDeviceCompatibilityMsg.
class ZNodeArborInstall_BuildAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_BuildAction, ZNodeAction)
private:
    bool Work() override;
};

/// Relays the local installer's progress.
class ZNodeArborInstall_ProgressAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_ProgressAction, ZNodeAction)
private:
    bool Work() override;
};

/// Watches the local installer's process to its end, or ends it when somebody cancels the install.
class ZNodeArborInstall_InstallAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_InstallAction, ZNodeAction)
private:
    bool Work() override;
    /// Of an installer whose process the host did not come to note: waits until it tells by its record, or could have.
    /// False when the host stops meanwhile.
    bool AwaitRecord(InstallLife& life);
    /// What an installer that was killed has started ends a moment after it, and decides how the install went.
    /// False when the host stops meanwhile.
    bool AwaitSlots(InstallLife& life);
    /// Waits a while until it is so, looking again after each `pause`. False when the host stops meanwhile.
    bool Await(InstallLife& life, const std::function<bool()>& isSo, ZClock::duration pause);
    /// Sleeps until something is to be done. True when the process has ended.
    bool AwaitEnd(int exit, const ZProcessId& process, ZOperation& operation, std::optional<ZClock::time_point> wakeUp);
    void EndProcess(const ZProcessId& process, const ZOperation& operation, int signal);
    std::optional<int> Reap(const ZProcessId& process, const std::string& program);
};

/// Carries a package to the accessory as file messages; its message is a TransferMsg.
class ZNodeArborInstall_TransferAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_TransferAction, ZNodeAction)
public:
    /// The file's size in bytes; the largest value when it can't be opened.
    static std::uint64_t GetFileSize(const std::filesystem::path& file);

private:
    struct Journey;
    bool Work() override;
    void Refuse(const Journey& journey, ZFrameworkErrorCodes::ZErrorCode code, const char* text,
                const std::string& reason);
    std::shared_ptr<ZVersionInfoMsg> MakeAnswer() const;
    bool OpenFile(Journey& journey);
    void SendChunks(Journey& journey);
    void CloseFile(Journey& journey);
    void Settle(const Journey& journey);
    void PublishProgress(const Journey& journey, std::int32_t percent);
    std::shared_ptr<ZGenericResponseMsg> Send(const Journey& journey, const std::shared_ptr<ZFileMsg>& message);
};

/// Installs the host's own version on the accessory through mDNS, ssh and rsync; its message is a ZSystemUpdateMsg.
class ZNodeArborInstall_RemoteInstallAction : public ZNodeArborInstallAction {
    Z_CLASS(ZNodeArborInstall_RemoteInstallAction, ZNodeAction)
public:
    /// Asks mDNS for the accessory: under its own name, then under the two fixed ones. False when none resolves.
    bool FindRemoteHostname(std::string& address, const std::string& modelName, const std::string& serialNumber);
    /// Publishes the percentage in a line of the copy's output, if it holds one.
    void InstallProgress(std::string line, std::string component);

private:
    struct Commands;
    bool Work() override;
    void Install(const ZSystemUpdateMsg& request);
    /// The host's own mDNS name; empty when it has none.
    static std::string OwnName();
    bool CanStandInCommands(const std::string& source, const std::string& ownName) const;
    bool TryHostname(const std::string& candidate, std::string& address);
    void Answer(bool success, const std::string& reason = {},
                ZFrameworkErrorCodes::ZErrorCode code = ZFrameworkErrorCodes::ERRCODE_NONE);
    Commands MakeCommands(const std::string& address, const std::string& source, const std::string& ownName) const;
    /// False when one failed, which the job then tells.
    bool RunCommands(const Commands& commands);
    void Fail(const std::string& reason);
    void RelayProgress(const std::string& address);
    bool IsSilent(const ProgressRelay& relay) const;

    std::shared_ptr<ZOperation> m_operation;
    std::shared_ptr<ZMessageArray> m_answer;

    std::regex m_progressPattern{kProgressPattern};
};
