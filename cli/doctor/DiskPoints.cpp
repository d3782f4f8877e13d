#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "JsonFields.h"
#include "TextFormat.h"
#include "doctor/Facts.h"

// What lies on the disk: folders, space, mounts, programs.

namespace json = boost::json;
namespace fs = std::filesystem;

namespace arborctl::doctor {
namespace {

constexpr std::uint64_t kMiB = std::uint64_t{1024} * 1024;
constexpr std::uint64_t kFull = kMiB;         // what journals and manifests need
constexpr std::uint64_t kLittle = 64 * kMiB;  // the smallest image that anybody ships

/// Whether the host's user has those rights there (R_OK, W_OK, X_OK), as far as the mode tells. A group is given the
/// doubt.
bool MayUse(const Facts& facts, const struct stat& status, unsigned bits) {
    if (!facts.setup.is_object()) {
        return true;  // nobody knows who it is
    }
    const bool isOwner = fields::Number(facts.setup, "userId") == static_cast<std::int64_t>(status.st_uid);
    const unsigned given = isOwner ? status.st_mode >> 6U : (status.st_mode >> 3U) | status.st_mode;
    return fields::Flag(facts.setup, "passesModes") || (given & bits) == bits;
}

void LookAtSpace(const char* point, const std::string& folder, Findings& found) {
    struct statvfs space {};
    if (statvfs(folder.c_str(), &space) != 0) {
        found.Unknown(point, folder + ": its free space can't be told: " + std::strerror(errno), "df " + folder);
        return;
    }
    const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
    const std::string text = folder + ": " + ByteCount(free) + " free";
    if (free < kFull) {
        found.Fault(point, text + ": it is full", "make room: du -x --max-depth=2 " + folder);
    } else if (free < kLittle) {
        found.Warning(point, text, "an image may not fit: du -x --max-depth=2 " + folder + " tells what fills it");
    } else {
        found.Ok(point, text);
    }
}

/// Whether the folder is one that the host can fill; tells what is wrong.
bool IsUsable(const Facts& facts, const char* point, const std::string& folder, Findings& found) {
    if (folder.find('$') != std::string::npos) {
        found.Unknown(point, folder + " has variables of the host's environment", "look at that folder yourself");
        return false;
    }
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0) {
        const int reason = errno;
        if (reason == EACCES) {
            found.Unknown(point, folder + ": not readable for you", "sudo arborctl doctor");
        } else {
            found.Fault(point, folder + ": " + std::strerror(reason),
                        "mkdir -p " + folder + ", on the storage that is meant for it; then systemctl restart arbord");
        }
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        found.Fault(point, folder + " is not a folder", "move away what stands there; then systemctl restart arbord");
        return false;
    }
    const auto mounts = facts.Mounts();
    const Mount* const mount = MountOf(mounts, folder);
    if (mount != nullptr && mount->isReadOnly) {
        found.Fault(point, folder + " is read-only for the host",
                    "mount it read-write; in a service it has to be named in ReadWritePaths= (systemctl edit arbord)");
        return false;
    }
    if (!MayUse(facts, status, W_OK | X_OK)) {
        const std::string user = fields::Text(facts.setup, "user");
        found.Fault(point, folder + ": the host's user " + user + " may not write there",
                    "chown " + user + " " + folder);
        return false;
    }
    return true;
}

/// Where the archive's device is mounted; empty when it is not.
std::string MountPointOf(const Facts& facts, const std::string& device) {
    const json::value& simulated = fields::Member(fields::Member(facts.graph, "platform"), "mounts");
    if (std::string path = fields::Text(simulated, device); !path.empty()) {
        return path;
    }
    std::error_code error;
    const fs::path real = fs::canonical(device, error);
    const std::string name = error ? device : real.string();
    const auto mounts = facts.Mounts();
    const auto found =
        std::ranges::find_if(mounts, [&](const Mount& each) { return each.device == device || each.device == name; });
    return found == mounts.end() ? "" : found->path;
}

bool IsExcluded(const Facts& facts, const std::string& path) {
    const auto& excluded = fields::List(fields::Member(facts.Node("ZNodeStorage"), "config"), "excludedRoots");
    return std::ranges::any_of(excluded, [&](const json::value& root) {
        return root.is_string() && LiesIn(path, std::string(root.get_string()));
    });
}

std::vector<std::string> RemovableRoots(const Facts& facts) {
    const json::value& config = fields::Member(facts.Node("ZNodeStorage"), "config");
    if (!fields::Member(config, "removableRoots").is_array()) {
        return {"/media", "/run/media"};
    }
    std::vector<std::string> roots;
    for (const json::value& root : fields::List(config, "removableRoots")) {
        if (root.is_string()) {
            roots.emplace_back(root.get_string());
        }
    }
    return roots;
}

/// One that is mounted, as the host is to read it.
void LookAtStick(const Facts& facts, const Mount& mine, Findings& found) {
    const Mount* const theirs = MountAt(facts.hostMounts, mine.path);
    if (!facts.hostMounts.empty() && theirs == nullptr) {
        found.Fault(
            "sticks", mine.path + " is mounted, and the host does not see it",
            "systemctl restart arbord; for those to come: MountFlags=slave in the unit, and mount --make-rshared /");
        return;
    }
    const Mount& seen = theirs != nullptr ? *theirs : mine;
    struct stat status {};
    if (stat(mine.path.c_str(), &status) != 0) {
        found.Unknown("sticks", mine.path + ": " + std::strerror(errno), "pull it, and plug it in again");
    } else if (!MayUse(facts, status, R_OK | X_OK)) {
        found.Fault("sticks", mine.path + ": the host's user " + fields::Text(facts.setup, "user") + " may not read it",
                    "mount it with uid=0 or umask=0022 (" + seen.type + ")");
    } else if (seen.isNoExec && facts.HasGraph() && facts.Setting("ZNodeArborInstall", "TrustedSigners").empty()) {
        found.Fault("sticks", mine.path + " is mounted noexec, and without TrustedSigners packages run from it",
                    "set TrustedSigners, or mount sticks with exec");
    } else {
        found.Ok("sticks", mine.path + " (" + seen.type + ") is seen by the host");
    }
}

/// Whether what is mounted below the root later will be seen.
void LookAtRoot(const Facts& facts, const std::string& root, Findings& found) {
    std::error_code error;
    const std::string own = fs::read_symlink("/proc/self/ns/mnt", error).string();
    const Mount* const mount = MountOf(facts.hostMounts, root);
    const bool isApart = fields::Text(facts.setup, "mountNamespace", own) != own;
    if (isApart && mount != nullptr && !mount->hears) {
        found.Fault("sticks", "what is mounted below " + root + " from now on is not seen by the host",
                    "MountFlags=slave in the unit, and mount --make-rshared / before it starts");
    } else if (fs::exists(root, error)) {
        found.Ok("sticks", "none is mounted below " + root);
    }
}

bool IsProgram(const std::string& name) {
    const auto runs = [](const fs::path& path) { return access(path.c_str(), X_OK) == 0; };
    const auto folders = {"/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin", "/bin"};
    return std::ranges::any_of(folders, [&](const char* folder) { return runs(fs::path(folder) / name); });
}

}  // namespace

void LookAtGraph(const Facts& facts, Findings& found) {
    if (facts.isGraphBroken) {
        found.Fault("graph", facts.graphFile + ": " + facts.graphProblem, "arbord --check --graph " + facts.graphFile);
        return;
    }
    if (!facts.HasGraph()) {
        const bool isForbidden = facts.graphProblem.starts_with("not readable");
        const std::string text = facts.graphFile + ": " + facts.graphProblem;
        const std::string advice =
            isForbidden ? "sudo arborctl doctor" : "arborctl doctor --graph FILE names another one";
        found.Add({"graph", isForbidden ? State::kUnknown : State::kFault, text, advice});
        return;
    }
    for (const auto& [name, use] :
         {std::pair{"ZNodeArborInstall", "nothing is installed"}, std::pair{"ZNodeStorage", "no stick is seen"},
          std::pair{"ZNodeDeviceProps", "the device has no identity"}}) {
        if (facts.Node(name).is_null()) {
            found.Fault("graph", std::string("without a ") + name + " " + use,
                        std::string("add a ") + name + " to " + facts.graphFile);
        }
    }
    if (facts.Node("ZNodeJournal").is_null()) {
        found.Warning("graph", "without a ZNodeJournal nobody keeps what was done, and by whom",
                      "add a ZNodeJournal to " + facts.graphFile);
    }
    if (fields::Flag(facts.status, "developerMode")) {
        found.Warning("graph", "developerMode is on: whoever may administer can have any file run",
                      "take developerMode out of the gateway's settings before it is shipped");
    }
    if (found.All().empty()) {
        found.Ok("graph",
                 facts.graphFile + ": " + std::to_string(fields::List(facts.graph, "nodes").size()) + " nodes");
    }
}

void LookAtUpdatesFolder(const Facts& facts, Findings& found) {
    const std::string told = fields::Text(fields::Member(facts.graph, "core"), "updatesFolder");
    const std::string folder = fields::Text(facts.setup, "updatesFolder", told);
    if (folder.empty()) {
        if (facts.HasGraph()) {
            found.Warning("updates folder", "none is set: nothing can be uploaded",
                          "set core.updatesFolder in " + facts.graphFile);
        }
    } else if (IsUsable(facts, "updates folder", folder, found)) {
        LookAtSpace("updates folder", folder, found);
    }
}

void LookAtArchive(const Facts& facts, Findings& found) {
    if (!facts.HasGraph()) {
        return;  // told already
    }
    const std::string device = facts.Setting("ZNodeArborInstall", "ArchiveDevice");
    if (device.empty()) {
        found.Fault("archive", "no device is set for it, so there is nowhere to install to",
                    "set ArchiveDevice of the update node in " + facts.graphFile);
        return;
    }
    const std::string mounted = MountPointOf(facts, device);
    if (mounted.empty()) {
        found.Fault("archive", device + " is not mounted, so there is nowhere to install to",
                    "mount it (/etc/fstab), name it in RequiresMountsFor= of the unit, then systemctl restart arbord");
        return;
    }
    const fs::path folder = fs::path(mounted) / facts.Setting("ZNodeArborInstall", "ArchiveDir");
    if (IsUsable(facts, "archive", folder.lexically_normal().string(), found)) {
        LookAtSpace("archive", folder.lexically_normal().string(), found);
    }
}

void LookAtSticks(const Facts& facts, Findings& found) {
    const auto mine = OwnMounts();
    for (const std::string& root : RemovableRoots(facts)) {
        bool isAny = false;
        for (const Mount& mount : mine) {
            if (mount.path != root && LiesIn(mount.path, root) && !IsExcluded(facts, mount.path)) {
                isAny = true;
                LookAtStick(facts, mount, found);
            }
        }
        if (!isAny) {
            LookAtRoot(facts, root, found);
        }
    }
}

void LookAtPrograms(const Facts& facts, Findings& found) {
    struct Need {
        const char* program;
        const char* package;
        bool isNeeded;
        const char* use;
    };
    const bool hasTrust = !facts.Setting("ZNodeArborInstall", "TrustedSigners").empty();
    const bool isConfined = hasTrust && facts.Setting("ZNodeArborInstall", "UnconfinedChecks") != "true";
    const bool isHost =
        facts.Setting("ZNodeDeviceProps", "deviceType") != "DEVICE_PALM" && !facts.Node("ZNodePeer").is_null();
    const bool hasUnits = fields::Flag(fields::Member(facts.graph, "platform"), "transientUnits");
    const Need needs[]{{"python3", "python3", true, "packages and the installer"},
                       {"openssl", "openssl", true, "packages and the installer"},
                       {"bwrap", "bubblewrap", isConfined, "checks of packages"},
                       {"systemd-run", "systemd", hasUnits, "installs as units"},
                       {"ssh", "openssh-client", isHost, "installs on the accessory"},
                       {"rsync", "rsync", isHost, "installs on the accessory"},
                       {"avahi-resolve", "avahi-utils", isHost, "installs on the accessory"}};
    std::string all;
    for (const Need& need : needs) {
        if (need.isNeeded && !IsProgram(need.program)) {
            found.Fault("programs", std::string(need.program) + " is missing, which " + need.use + " need",
                        std::string("apt install ") + need.package);
        } else if (need.isNeeded) {
            all += (all.empty() ? "" : ", ") + std::string(need.program);
        }
    }
    if (found.All().empty()) {
        found.Ok("programs", "all are there: " + all);
    }
}

}  // namespace arborctl::doctor
