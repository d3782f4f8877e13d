#include "ZShared/ZFolderGuard.h"

#include <algorithm>
#include <array>

#include "ZShared/ZMountTable.h"

namespace fs = std::filesystem;

namespace {

using namespace std::string_view_literals;

// The places that the Filesystem Hierarchy Standard gives to the system (version 3.0, chapters 3 to 6). Of the first,
// all that is below belongs to it too; of the second, programs have folders of their own below.
constexpr std::array kSystemTrees{"/bin"sv,   "/boot"sv, "/dev"sv,  "/etc"sv, "/lib"sv, "/lib32"sv,
                                  "/lib64"sv, "/proc"sv, "/sbin"sv, "/sys"sv, "/usr"sv, "/libx32"sv};
constexpr std::array kSharedFolders{"/"sv,          "/home"sv,    "/media"sv,          "/mnt"sv,      "/opt"sv,
                                    "/root"sv,      "/run"sv,     "/run/media"sv,      "/run/user"sv, "/srv"sv,
                                    "/tmp"sv,       "/var"sv,     "/var/cache"sv,      "/var/lib"sv,  "/var/lib/dpkg"sv,
                                    "/var/local"sv, "/var/log"sv, "/var/mail"sv,       "/var/opt"sv,  "/var/run"sv,
                                    "/var/spool"sv, "/var/tmp"sv, "/var/lib/systemd"sv};

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

/// The path with links followed as far as it exists.
fs::path Real(const fs::path& path) {
    std::error_code code;
    const fs::path real = fs::weakly_canonical(path, code);
    return WithoutEndingSlash(code ? path.lexically_normal() : real);
}

}  // namespace

bool IsFolderOfItsOwn(std::string_view text) {
    const fs::path path(text);
    if (!path.is_absolute() || std::ranges::find(path, fs::path("..")) != path.end()) {
        return false;
    }
    const std::string folder = WithoutEndingSlash(path.lexically_normal()).string();
    return std::ranges::find(kSharedFolders, folder) == kSharedFolders.end() &&
           std::ranges::none_of(kSystemTrees, [&](std::string_view tree) { return IsIn(folder, tree); });
}

bool LiesIn(const fs::path& path, const fs::path& folder) {
    return IsIn(Real(path), Real(folder));
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
        if (!kept.empty() && LiesIn(kept, real)) {
            return refused("it holds " + kept.string());
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
