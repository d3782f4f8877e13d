#include "ZShared/ZFolderGuard.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "ZShared/ZMountTable.h"

namespace fs = std::filesystem;

namespace {

using namespace std::string_view_literals;

// The places that the Filesystem Hierarchy Standard gives to the system (version 3.0, chapters 3 to 6). Of the first,
// all that is below belongs to it too; of the second, programs have folders of their own below.
constexpr std::array kSystemTrees{
    "/var/lib/apt"sv, "/var/lib/dpkg"sv, "/var/lib/systemd"sv, "/run/systemd"sv, "/bin"sv,  "/boot"sv, "/dev"sv,
    "/etc"sv,         "/lib"sv,          "/lib32"sv,           "/lib64"sv,       "/proc"sv, "/sbin"sv, "/sys"sv,
    "/usr"sv,         "/libx32"sv};
constexpr std::array kSharedFolders{
    "/"sv,          "/home"sv,     "/media"sv,    "/mnt"sv,     "/opt"sv,     "/root"sv,      "/run"sv,
    "/run/media"sv, "/run/user"sv, "/srv"sv,      "/tmp"sv,     "/var"sv,     "/var/cache"sv, "/var/lib"sv,
    "/var/local"sv, "/var/log"sv,  "/var/mail"sv, "/var/opt"sv, "/var/run"sv, "/var/spool"sv, "/var/tmp"sv};

/// Whether `path` is `folder` or lies below it. Both absolute and normal.
bool IsIn(const fs::path& path, const fs::path& folder) {
    return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first == folder.end();
}

/// Whether drives come and go there: what is mounted is somebody's then.
bool IsPlaceOfDrives(const fs::path& path) {
    return IsIn(path, "/media") || IsIn(path, "/run/media") || IsIn(path, "/mnt");
}

fs::path WithoutEndingSlash(const fs::path& path) {
    return path.has_filename() || path == path.root_path() ? path : path.parent_path();
}

/// The path with links followed as far as it exists; empty when they can't be followed.
fs::path Real(const fs::path& path) {
    std::error_code code;
    const fs::path real = fs::weakly_canonical(path, code);
    return code ? fs::path() : WithoutEndingSlash(real);
}

/// What a thing is, whatever it is called; none for what is not there.
std::optional<std::pair<dev_t, ino_t>> IdentityOf(const fs::path& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? std::optional(std::pair(status.st_dev, status.st_ino)) : std::nullopt;
}

}  // namespace

bool IsFolderOfItsOwn(std::string_view text) {
    const fs::path path(text);
    if (!path.is_absolute() || std::ranges::find(path, fs::path("..")) != path.end()) {
        return false;
    }
    const std::string folder = WithoutEndingSlash(path.lexically_normal()).string();
    return std::ranges::find(kSharedFolders, folder) == kSharedFolders.end() &&
           fs::path(folder).parent_path() != "/home" &&
           std::ranges::none_of(kSystemTrees, [&](std::string_view tree) { return IsIn(folder, tree); });
}

bool LiesIn(const fs::path& path, const fs::path& folder) {
    const fs::path real = Real(path);
    const auto identity = IdentityOf(folder);
    for (fs::path above = real; identity && !above.empty(); above = above.parent_path()) {
        if (IdentityOf(above) == identity) {
            return true;
        }
        if (above == above.root_path()) {
            break;
        }
    }
    return !real.empty() && IsIn(real, Real(folder));
}

ZResult<void> MayBeEmptied(const fs::path& folder, const std::vector<fs::path>& keep, const fs::path& mountPoint) {
    const auto refused = [&](const std::string& why) {
        return ZError(folder.string() + " may not be emptied: " + why);
    };
    const fs::path real = Real(folder);
    if (!IsFolderOfItsOwn(folder.string()) || !IsFolderOfItsOwn(real.string())) {
        return refused(folder.is_absolute() ? "it belongs to the system" : "it is not an absolute path");
    }
    if (!mountPoint.empty() && (LiesIn(mountPoint, real) || !LiesIn(real, mountPoint))) {
        return refused("it is not below " + mountPoint.string());
    }
    for (const fs::path& kept : keep) {
        // A link is kept as well as what it leads to.
        if (!kept.empty() && (LiesIn(kept, real) || LiesIn(kept.parent_path(), real))) {
            return refused("it holds " + kept.string());
        }
        if (std::error_code code; fs::is_directory(kept, code) && LiesIn(real, kept)) {
            return refused("it lies in " + kept.string());
        }
    }
    try {
        const bool mayBeMounted = mountPoint.empty() && !IsPlaceOfDrives(real);
        for (const ZMount& mount : ReadMountTable()) {
            const bool isItself = mount.target == real.string();
            if (IsIn(mount.target, real) && !(isItself && mayBeMounted)) {
                return refused("something is mounted at " + mount.target);
            }
        }
    } catch (const std::exception& failure) {
        return refused(failure.what());
    }
    return {};
}
