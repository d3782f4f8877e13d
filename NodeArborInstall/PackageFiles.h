#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <utility>

/// The package in a version's directory of the archive.
inline constexpr const char* kPackageName = "arbor_qm.pkg";
/// The board that it is for: no other one's package has that name.
inline constexpr const char* kPackageBoard = "verdin-imx8mm";
/// Where installers find the archive: a fixed path of every instrument, on its accessory too.
inline constexpr const char* kInstallersArchive = "/media/mmcblk1p3/Packages";

/// How long a drive may take to give what is read of a file at once.
inline constexpr auto kReadPatience = std::chrono::seconds(5);

/// How long at least for all of a package, where that is needed.
inline constexpr auto kCopyPatience = std::chrono::seconds(20);

/// Whether somebody may run a file with these permissions.
inline bool IsExecutable(std::filesystem::perms permissions) {
    using std::filesystem::perms;
    return (permissions & (perms::owner_exec | perms::group_exec | perms::others_exec)) != perms::none;
}

/// What changes when a file is written anew, or another one gets its name.
using FileStamp = std::pair<ino_t, std::int64_t>;

/// None when there is no such file.
inline std::optional<FileStamp> StampOf(const std::filesystem::path& file) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    return FileStamp{status.st_ino, status.st_ctim.tv_sec * 1'000'000'000 + status.st_ctim.tv_nsec};
}
