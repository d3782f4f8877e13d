#pragma once

#include <deque>
#include <future>
#include <map>
#include <set>

#include "CheckQueue.h"
#include "InstallLife.h"
#include "NodeBase/ZNode.h"
#include "PackageFiles.h"
#include "PackageTrust.h"
#include "ProgressRelay.h"
#include "VersionTables.h"
#include "ZMessages/TrialMessages.h"
#include "ZNodeArborInstallCfg.h"
#include "ZUseFlag.h"

struct ZSealedProgram;

/// The instrument's software-update manager. Handlers (On...) run on the node's message thread and return true when the
/// message was handled; long work runs in the worker actions of ZNodeArborInstallActions.h, which call back into the
/// operations below. What both sides touch guards itself: the tables, the relay, atomics.
class ZNodeArborInstall : public ZNode {
    Z_CLASS(ZNodeArborInstall, ZNode)
public:
    explicit ZNodeArborInstall(const ZString& name);

    // Lifecycle.
    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    bool OnGraphCreated() override;
    /// Records the request, also when it refuses because a file check or a remote install runs.
    bool OnShutdownRequest(bool bUnconditional) override;

    // Handlers.
    bool OnSystemUpdate(const std::shared_ptr<ZMessage>& msg);
    bool OnRemoteInstall(std::shared_ptr<ZMessage>& msg);
    bool OnCheckCompatibility(std::shared_ptr<ZMessage>& message);
    bool OnCompareVersions(std::shared_ptr<ZMessage>& request);
    bool OnNewUpdateFile(const std::shared_ptr<ZMessage>& message);
    bool OnStorageUpdateDevice(const std::shared_ptr<ZMessage>& message);
    bool OnFindUpdates(std::shared_ptr<ZMessage>& request);
    bool OnGetInstalledVersionInfo(const std::shared_ptr<ZMessage>& request);
    bool OnUpload(std::shared_ptr<ZMessage>& message);
    bool OnTransfer(std::shared_ptr<ZMessage>& msg);
    bool OnGetUpdateInProgress(std::shared_ptr<ZMessage>& request);
    /// What is installed, starts next, and could be installed. Leaves no log line.
    bool OnInventory(const std::shared_ptr<ZMessage>& request);
    /// Removes an uploaded file, unless it is being installed.
    bool OnForget(const std::shared_ptr<ZMessage>& request);
    /// Whose packages may run. Leaves no log line.
    bool OnTrust(const std::shared_ptr<ZMessage>& request);
    /// Follows trust documents that a person brings.
    bool OnApplyTrust(const std::shared_ptr<ZMessage>& request);
    /// How the trial of the version that runs goes: what was taken back is refused from then on.
    bool OnTrial(const std::shared_ptr<ZMessage>& message);
    // For a caller that wires them itself; no keyword leads here, and the message is not read.
    bool OnSwitchPartition(std::shared_ptr<ZMessage>& message);
    bool OnSwitchDevice(std::shared_ptr<ZMessage>& message);

    // Shell commands.
    /// `text` in single quotes for a POSIX shell.
    static std::string ShellEscape(const std::string& text);
    /// Runs a shell command line, logs how it went and returns whether it succeeded.
    bool RunCommand(const std::string& commandLine);

    // The archive, and the packages found on storage devices. All lookups are exact.
    /// The archived package of that version; empty when there is none.
    std::filesystem::path GetBuild(ZSoftwareVersion& version);
    /// Whether a found package of that version is known and its file exists now. A known path is written to
    /// `packagePath` also when the file has gone. A drive that does not answer within some seconds has no files.
    bool FindPackage(const ZString& versionText, std::filesystem::path& packagePath);
    /// The file to install for that version, archive first; empty when there is none.
    std::filesystem::path GetPackage(const ZString& versionText);
    std::shared_ptr<ZSystemManifestMsg> LoadManifest(const std::filesystem::path& path);
    std::shared_ptr<ZSystemManifestMsg> LoadManifest(const ZString& text);

    // Package checks. `results` collects one ZVersionInfoMsg per rejected file and per available update.
    bool ProcessStorageDevices(const ZVector<ZString>& drives, std::shared_ptr<ZMessageArray>& results);
    bool ScanDrive(const std::filesystem::path& drive, std::shared_ptr<ZMessageArray>& results);
    /// Checks one file and records it when it is accepted. False when one of its two commands failed; a package that
    /// answers but is rejected gives true.
    bool CheckPackageFile(const std::filesystem::path& file, std::shared_ptr<ZMessageArray>& results);
    bool RemoveStorageDevices(const ZVector<ZString>& drives);
    void AddInvalidPackage(std::shared_ptr<ZMessageArray>& results, const ZString& version, const ZString& file,
                           ZFrameworkErrorCodes::ZErrorCode code);
    /// Adds the known packages and publishes the array; not when it is empty and `publishAlways` is false.
    void CheckAvailableUpdates(std::shared_ptr<ZMessageArray>& results, bool publishAlways);

    /// Builds a package of the installed version for the accessory's board. On the Build action's thread.
    void BuildPackage(const std::shared_ptr<ZDeviceCompatibilityMsg>& message);

    // The install-progress socket: used by one relay thread at a time, which BindSocket sees to.
    /// Binds and listens. False when that fails or while another relay is bound, which stays untouched.
    bool BindSocket(int sockfd, bool bUnix);
    void CloseSocket(int sockfd, bool bUnix);
    /// One poll pass, of 500 ms at most. Whether the relay is to keep running.
    bool SocketLoop(int* pSockfd, std::shared_ptr<ZCommStream>& stream);

    // What actions ask.
    ZString UpdateVersion() const { return m_UpdateVersion.Copy(); }
    ZString RemoteInstallSerial() const { return m_RemoteInstallSerial.Copy(); }
    const ZSoftwareVersion& SystemVersion() const { return m_systemVersion; }
    const std::filesystem::path& UpdatesPath() const { return m_updatesPath; }
    /// The accessory's and the host device's fixed mDNS names; empty ones are not configured.
    const ZString& AccessoryHostName() const { return m_accessoryHostName; }
    const ZString& DeviceHostName() const { return m_deviceHostName; }
    /// The record, or one with default values when there is none.
    const ZNodeArborInstallCfg& Config() const;
    ZUseFlag& BusyFlag() { return m_bBusy; }
    /// What keeps the node busy since it accepted a remote install; the action that does it takes it over. None when no
    /// accepted one waits for its action.
    std::shared_ptr<ZUseFlag::Hold> TakeRemoteInstallHold();
    ZUseFlag& RemoteInstallsFlag() { return m_remoteInstalls; }

    // Jobs.
    /// The job of that kind and file that a handler began for the message whose action runs now, or a new one.
    std::shared_ptr<ZOperation> TakeJob(const ZMessage* message, const ZOperationSubject& subject);
    /// Waits until what was told of a job is kept: the next life finds what goes on without this one.
    void AwaitNote(const ZOperation& operation);
    /// The next message for an action of that name to go on with; null when it is to end.
    std::shared_ptr<ZMessage> NextWaiting(const char* action);
    std::shared_ptr<InstallLife> Install() const { return m_install.Copy(); }
    /// Where the installer of the accessory reports to, until the relay for it has been closed: the two addresses,
    /// IPv4, and the job. False while another accessory is being installed.
    bool ListenToAccessory(const std::string& own, const std::string& accessory,
                           const std::shared_ptr<ZOperation>& operation);
    void StopListeningToAccessory();
    ProgressRelay& Relay(bool bUnix) { return bUnix ? m_relay : m_accessoryRelay; }
    /// Whether the file was uploaded: it lies in the updates folder itself.
    bool IsUpload(const std::filesystem::path& file) const;
    /// Whether others may exchange a package that was checked: with a trust policy it must not run as a file then.
    bool MayBeExchanged(const std::filesystem::path& package) const;
    /// Whether the archive is the device's own, so that what is in it may run: not when it is on one of the drives, as
    /// when a stick has the label by which its device is named. Any is, without a trust policy.
    ZResult<void> IsArchiveOwn();
    /// The package of the installed version, or of another one, that fits the accessory as far as its board is known.
    /// Empty, with the reason, when there is none.
    std::filesystem::path PackageFor(const ZString& version, ZDeviceModel accessory, std::string& reason);
    /// As ProcessStorageDevices, for a request.
    bool ScanDrives(const ZVector<ZString>& drives, std::shared_ptr<ZMessageArray>& results, const ZMessage* request);
    /// Checks a file as a job, in its turn, and adds what came of it to `results`.
    bool CheckNow(const std::filesystem::path& file, std::shared_ptr<ZMessageArray>& results, const ZMessage* request);
    /// The file is no package any more, or was not accepted as one.
    /// Whether it was known.
    bool ForgetFile(const std::filesystem::path& file);
    /// With a trust policy: follows the trust documents in the file, where there is one, as a job. Whether there is.
    bool FollowFile(const std::filesystem::path& file, const ZOperationSubject& subject, const ZMessage* request);
    /// Checks what is known, or was refused, under other trust documents than before.
    void JudgeAgain(std::shared_ptr<ZMessageArray>& results);
    /// Where the version that runs stands on its way; nothing in a graph that judges none.
    ZResult<std::shared_ptr<ZSlotsMsg>> AskSlots();
    /// Whether the version, with an image of that digest (empty: not known), was not taken back.
    ZResult<void> MayBeOffered(const ZString& version, const std::string& digest);
    /// Whether the slot that does not run may be written over: not while it is the way back.
    ZResult<void> MayBeReplaced();
    /// Whether the file may be a package: without a trust policy it runs as it is, so it has to be executable.
    bool MayBePackage(const std::filesystem::path& file, std::filesystem::perms permissions) const;
    /// The jobs of a message that were not taken over will not be.
    void DropJobs(const ZMessage& message);
    /// Removes the uploads that were refused, once that was told.
    void RemoveRefusedUploads(const ZMessageArray& results);

private:
    friend class NodeAccess;  // tests look at the tables

    template <typename Handler>
    bool SubscribeKeyword(ZEndpointType type, const char* keyword, Handler handler);

    // Start-up, in this order.
    void ReadIdentity();
    void ReadTrust();
    void PrepareUpdatesFolder(const std::shared_ptr<ZCoreConfigParams>& core);
    void MakeEmptyFolder(const std::filesystem::path& folder);
    void ReadInstalledSystem();
    void LogInstalledSystem(const ZSystemManifestMsg& manifest);
    void ReadArchive();
    /// Makes the archive's folder; false, told, when there is no place for it.
    bool HasArchive();
    void ReadVersionDirectories();
    void DeleteInvalidDirectories(const std::vector<std::filesystem::path>& directories);
    void ReadVersionDirectory(const std::filesystem::path& directory, const ZSoftwareVersion& version);

    // Jobs.
    /// Begins a job that the message's action will take over.
    void BeginJob(const std::shared_ptr<ZMessage>& message, const ZOperationSubject& subject);
    bool StartJob(const char* action, const std::shared_ptr<ZMessage>& message, const ZOperationSubject& subject);
    /// Runs the action for the message at once, or, when as many run as may, after one of them. Whether it was at once.
    bool RunBounded(const char* action, const std::shared_ptr<ZMessage>& message);
    /// Goes on with the installs that an earlier life of this host left running, and tells how others ended.
    void AdoptInstalls();
    void Adopt(const ZOperationMsg& left);
    /// Null when nobody keeps jobs, or no answer comes in time.
    std::shared_ptr<ZOperationsMsg> AskJournal(const std::shared_ptr<ZOperationsRequestMsg>& request,
                                               std::chrono::seconds patience);
    void OnProgress(bool bUnix, const std::shared_ptr<InstallProgressMsg>& progress);

    // Package checks.
    struct DriveChecks;
    struct CheckOrder {
        std::shared_ptr<ZOperation> operation;
        std::uint64_t order = 0;
        std::optional<FileStamp> stamp;  // of an upload
    };
    bool ScanDriveFor(const std::filesystem::path& drive, std::shared_ptr<ZMessageArray>& results,
                      const ZMessage* request);
    void CheckDriveEntry(const std::filesystem::path& file, DriveChecks& checks);
    bool FinishScan(DriveChecks& checks, std::shared_ptr<ZMessageArray>& results);
    void EndChecksOf(const ZVector<ZString>& drives);
    /// What was found out about the file, or is being, is of an earlier one of that name.
    void EndChecksOfFile(const std::filesystem::path& file);
    /// Without a code nothing was found out about the file: it may be a good one.
    void KeepRefused(const ZString& version, const ZString& file, const ZError& why,
                     const std::optional<FileStamp>& stamp);
    struct QueuedCheck {
        std::shared_ptr<ZOperation> operation;
        std::future<bool> done;
    };
    QueuedCheck QueueCheck(const std::filesystem::path& file, const std::shared_ptr<ZMessageArray>& results,
                           const ZOperationSubject& subject, const ZMessage* request);
    bool CheckPackage(const std::filesystem::path& file, std::shared_ptr<ZMessageArray>& results,
                      const CheckOrder& order);
    struct PackageCheck;
    /// Puts the chain of trust documents into force; all packages are judged again then. Gives the number that is in
    /// force by it, or nothing when nothing is new.
    ZResult<std::optional<std::uint32_t>> FollowChain(const ZResult<ZTrustChain>& chain, const std::string& source);
    bool IsBeingChecked(const std::filesystem::path& file) const;
    void ForgetGone(const std::set<std::filesystem::path>& files);
    /// What is in the way of accepting packages; empty: nothing.
    ZString TrustProblem(const ZResult<ZTrustedSigners>& signers) const;
    /// What of that is because checks can't be confined.
    ZString ConfinementProblem(const ZResult<void>& confined) const;
    /// With a trust policy: reads the file, follows its trust documents, and says whether it may run on this device.
    ZResult<PackageTrust::Approved> Approve(const std::filesystem::path& file, std::chrono::milliseconds limit);
    /// What comes once it has told its version.
    bool FinishCheck(const PackageCheck& check, const ZSoftwareVersion& version,
                     std::shared_ptr<ZMessageArray>& results, const CheckOrder& order);
    bool RunCheck(const PackageCheck& check, const std::string& arguments, std::string& output);
    void Refuse(std::shared_ptr<ZMessageArray>& results, const ZString& version, const std::filesystem::path& file,
                const ZError& why, const CheckOrder& order);
    bool VerifyPackageFile(const PackageCheck& check, const ZSoftwareVersion& version, std::string& output);
    bool IsVersionAllowed(const ZSoftwareVersion& version, const std::filesystem::path& file);
    static std::shared_ptr<ZVersionInfoMsg> MakeUpdateRecord(const ZSoftwareVersion& version);
    /// False when the file is no longer there.
    bool RecordPackage(const PackageCheck& check, const ZSoftwareVersion& version, const CheckOrder& order);

    // System update.
    void LogMissingPackage(const ZString& version);
    std::vector<std::string> InstallerArguments(const std::filesystem::path& package, const ZSystemUpdateMsg& request);
    void StartInstaller(const std::filesystem::path& package, const ZSystemUpdateMsg& request, ZVersionInfoMsg& answer,
                        const std::shared_ptr<ZOperation>& operation);
    /// Goes on with a package that may run; its progress is relayed.
    void Launch(const PackageTrust::Approved& package, const ZSystemUpdateMsg& request, ZVersionInfoMsg& answer,
                const std::shared_ptr<ZOperation>& operation);
    /// Whether the installer can report its progress, or does so elsewhere.
    ZResult<void> StartRelay(const ZSystemUpdateMsg& request);
    void StopRelay();
    ZResult<void> RunInstaller(const std::vector<std::string>& arguments, const std::shared_ptr<InstallLife>& life,
                               const ZSealedProgram* sealed);
    /// With a trust policy: the package checked again, whose head is to run in its place; else one without a head.
    ZResult<PackageTrust::Approved> PackageToInstall(const std::filesystem::path& package, const ZString& version);

    // Compatibility.
    void DecideBuild(const std::shared_ptr<ZMessage>& request);
    static std::string BoardAsked(const ZDeviceCompatibilityMsg& message);
    /// As above, told in the log.
    std::string BoardOf(const ZDeviceCompatibilityMsg& message);
    ZResult<std::filesystem::path> InstallerScript(const std::filesystem::path& versionDirectory);
    ZResult<void> RunBuild(const ZDeviceCompatibilityMsg& message);

    /// Where installers report: on the socket in the archive's folder, or on a TCP port.
    ProgressRelay::Place RelayPlace(bool bUnix) const;
    ZLogger Log() const;

    // m_logName, "ZNodeArborInstall", and m_logLevel, 2, are the base's.
    VersionTables m_tables;
    std::shared_ptr<ZNodeArborInstallCfg> m_pConfig;
    ZSoftwareVersion m_systemVersion;
    std::filesystem::path m_archivePath;
    std::filesystem::path m_updatesPath;
    ZUseFlag m_bBusy;  // held by file checks and remote installs; a shutdown is refused meanwhile
    ZVector<ZString> m_actionTexts;
    std::atomic<bool> m_bShutdownRequested{false};
    ZString m_serialNumber;
    std::optional<ZDeviceModel> m_deviceModel;
    ZString m_model;
    ZString m_board;
    PackageTrust m_trust;
    ZGuarded<ZString> m_UpdateVersion;             // of the install started last, here or on the accessory
    ZGuarded<ZString> m_RemoteInstallSerial;       // of the accessory that was to be installed last
    std::atomic<bool> m_bUpdateInProgress{false};  // of this device; an install never clears it once it runs
    ZUseFlag m_remoteInstalls;                     // held by those under way on accessories
    std::atomic<bool> m_bBuildInProgress{false};
    std::shared_ptr<ZDevicePropertiesMsg> m_pDeviceProperties;
    ProgressRelay m_relay;                             // of this device's installer
    ProgressRelay m_accessoryRelay;                    // of an accessory's
    ZGuarded<std::shared_ptr<InstallLife>> m_install;  // the one that was started last
    struct AccessoryInstall {
        std::string own;
        std::string accessory;
        std::shared_ptr<ZOperation> operation;
    };
    ZGuarded<AccessoryInstall> m_accessoryInstall;  // whose progress is, or will be, relayed
    std::condition_variable m_accessoryFree;
    std::filesystem::path m_slots;
    ZGuarded<std::multimap<const ZMessage*, std::shared_ptr<ZOperation>>> m_jobs;  // begun, not taken over yet
    struct Backlog {
        std::size_t running = 0;
        std::deque<std::shared_ptr<ZMessage>> waiting;
    };
    ZGuarded<std::map<std::string, Backlog>> m_backlogs;  // by action
    struct Refused {
        std::shared_ptr<ZPackageInfoMsg> told;
        std::optional<FileStamp> stamp;  // of the very file, of an upload
    };
    ZGuarded<std::deque<Refused>> m_refused;                      // the newest first
    ZGuarded<std::optional<std::vector<ZString>>> m_takenBack;    // versions, as last told
    std::atomic<bool> m_bJudgedAlone{false};                      // something, as nobody said what was taken back
    ZGuarded<std::map<ZDeviceModel, ZString>> m_accessoryBoards;  // as accessories told them
    std::atomic<std::uint64_t> m_checkOrder{0};
    // One for each remote install that waits for its action.
    ZGuarded<std::vector<std::shared_ptr<ZUseFlag::Hold>>> m_remoteInstallHolds;
    std::filesystem::path m_graphFile;  // never deleted
    ZString m_accessoryHostName;
    ZString m_deviceHostName;
    CheckQueue m_checks;  // the last member: what it runs uses the others
};
