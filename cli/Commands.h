#pragma once

#include <string>
#include <vector>

#include "Result.h"
#include "Session.h"

/// One function for each command of the program. Each writes its result to the session and returns the exit status, or
/// says why it could not do its work.
namespace arborctl {

// Questions, answered at once.
Result<ExitCode> ShowStatus(Session& session);
Result<ExitCode> ShowUpdates(Session& session);
Result<ExitCode> CompareVersions(Session& session, const std::string& first, const std::string& second);

struct CompatibilityQuestion {
    std::string version;
    std::string board;
    std::string model;  ///< Name of a device model; empty: the device's own default.
};
Result<ExitCode> CheckCompatibility(Session& session, const CompatibilityQuestion& question);

/// `body` is the message's JSON, "-" for the standard input or "@FILE".
/// The keywords that the device takes, a line each.
Result<ExitCode> ListKeywords(Session& session);
Result<ExitCode> SendMessage(Session& session, const std::string& keyword, const std::string& body);

// Jobs: what was done, and what is under way.
struct HistoryOrder {
    unsigned count = 30;
    std::string kind;   ///< "remote-install"; empty: all
    std::string state;  ///< "failed", or "open"; empty: all
    std::string since;  ///< as SinceFrom takes it; empty: from the beginning
};
Result<ExitCode> ShowHistory(Session& session, const HistoryOrder& order);
struct OrdersOrder {
    unsigned count = 30;
    std::string result;  ///< "accepted" or "refused"; empty: both
    std::string user;    ///< empty: all
    std::string since;   ///< as SinceFrom takes it; empty: from the beginning
};
/// What people ordered, or were refused.
Result<ExitCode> ShowOrders(Session& session, const OrdersOrder& order);
/// The job with the id, or with the only one that begins so.
Result<ExitCode> ShowJob(Session& session, const std::string& id);
/// Has the device end the job, and waits until it has ended.
Result<ExitCode> CancelJob(Session& session, const std::string& id);

// Work that the device does.
/// Has the device check a package file on a drive or in its updates folder, or a whole drive, and waits for the
/// outcome.
Result<ExitCode> Scan(Session& session, const std::string& path);

struct InstallOrder {
    std::string version;
    std::string progressHost;  ///< Device that the installer reports to; empty: the device itself.
    bool reboot = true;
    bool wait = false;
};
Result<ExitCode> Install(Session& session, const InstallOrder& order);

struct AccessoryOrder {
    std::string version;  ///< May be empty for a remote install.
    std::string serialNumber;
    std::string model;  ///< Empty: the one that the device knows the serial number's owner by.
    bool wait = false;
};
Result<ExitCode> Transfer(Session& session, const AccessoryOrder& order);
Result<ExitCode> RemoteInstall(Session& session, const AccessoryOrder& order);

struct UploadOrder {
    std::string file;
    bool check = true;  ///< Wait until the device has checked it; else return as soon as the device has it.
};
/// Sends a file of this machine into the device's updates folder.
Result<ExitCode> UploadFile(Session& session, const UploadOrder& order);

struct VerifyOrder {
    std::string file;
    std::string trust;         ///< Folder of those who are trusted; empty: only whether it is whole and signed.
    std::string state;         ///< Folder with a newer trust document; may be empty.
    std::string board;         ///< Empty: any.
    bool development = false;  ///< Development packages are good too.
};
/// Says whether a package file of this computer is whole, signed and trusted. Needs no device; nothing of it runs.
Result<ExitCode> VerifyPackage(Session& session, const VerifyOrder& order);

// Who is trusted.
/// What the device goes by.
Result<ExitCode> ShowTrust(Session& session);
/// What the last trust document in a file of this computer says. Needs no device.
Result<ExitCode> ShowTrustFile(Session& session, const std::string& file);
/// Has the device follow the trust documents in a file of this computer.
Result<ExitCode> ApplyTrust(Session& session, const std::string& file);

// Versions that have to prove themselves.
Result<ExitCode> ShowSlots(Session& session);
Result<ExitCode> ConfirmVersion(Session& session);
/// Back to the confirmed version; `reason` is for the journal.
Result<ExitCode> RevertVersion(Session& session, const std::string& reason);
/// Has a version offered again that was taken back.
Result<ExitCode> AllowVersion(Session& session, const std::string& version);
/// Where the version that runs stands, and how the last trial ended (empty: there was none), of an answer to "slots".
std::string TrialText(const boost::json::value& slots);
std::string LastTrialText(const boost::json::value& slots);

/// Looks at the whole set-up, with and without a running host, and says what to mend; `graphFile` empty: the one that
/// the host tells, or the usual one. kRefused when something is at fault.
Result<ExitCode> LookAtSetup(Session& session, const std::string& graphFile);

/// Removes a file that was uploaded.
Result<ExitCode> ForgetUpload(Session& session, const std::string& file);

// The link to other devices.
Result<ExitCode> ShowPeers(Session& session);
/// The device's own key, those it lets in and those it turned away.
Result<ExitCode> ShowKeys(Session& session);

struct PairOrder {
    std::string publicKey;
    std::string name;     ///< Empty: the beginning of the key.
    std::string address;  ///< Where the device calls the other one; empty: the other one calls.
    bool remove = false;
};
Result<ExitCode> Pair(Session& session, const PairOrder& order);

/// Makes the file with a device's own key pair; asks no device.
Result<ExitCode> MakeKeyFile(Session& session, const std::string& file);

struct PageOrder {
    std::uint16_t port = 0;  ///< of this machine's own address; 0: any that is free
    bool network = false;    ///< tell the address that the device itself serves, and return
    bool open = true;        ///< in a browser, where there is a screen
};
/// Serves the device's page to a browser on this machine, until the user ends it.
Result<ExitCode> ServePage(Session& session, const PageOrder& order);

// Streams, until the user or the reader of the output ends them.
Result<ExitCode> WatchEvents(Session& session);
struct LogOrder {
    unsigned lines = 200;
    std::string level = "info";  ///< the lowest that is shown, one of LogLevels()
    std::string since;           ///< as SinceFrom takes it; empty: all that the device remembers
    bool follow = false;
};
/// The lowest first.
std::vector<std::string> LogLevels();
Result<ExitCode> ShowLog(Session& session, const LogOrder& order);

}  // namespace arborctl
