#include "SafePath.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <optional>

namespace fs = std::filesystem;

namespace {

constexpr int kAsFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kFolderMode = 0755;
constexpr std::string_view kTemporaryEnd = ".part";

/// A folder below a root, both free of links when they were resolved.
struct ConfinedFolder {
    fs::path root;
    fs::path below;  // "." for the root itself
};

// Quotes, too: the names of packages end up in command lines.
bool IsHostile(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < ' ' || byte == 0x7f || byte == '"' || byte == '\'' || byte == '`';
}

FileError CheckText(std::string_view text) {
    if (text.empty()) {
        return BadRequest("there is no name");
    }
    if (text.size() >= PATH_MAX) {
        return BadRequest("the name is longer than " + std::to_string(PATH_MAX - 1) + " bytes");
    }
    if (std::ranges::any_of(text, IsHostile)) {
        return BadRequest("the name holds a quote or a control character");
    }
    const fs::path path(text);
    if (!path.is_absolute()) {
        return BadRequest("the path is not absolute");
    }
    const std::string name = path.filename().string();
    if (name.empty() || name == "." || name == "..") {
        return BadRequest("the name is a folder's");
    }
    if (IsTemporaryName(name)) {
        return BadRequest("such names are kept for files that are being written");
    }
    return {};
}

std::optional<ConfinedFolder> Confine(const std::vector<fs::path>& roots, const fs::path& folder) {
    for (const fs::path& root : roots) {
        std::error_code code;
        const fs::path resolved = fs::weakly_canonical(root, code);
        const fs::path below = folder.lexically_relative(resolved);
        if (!code && !below.empty() && *below.begin() != "..") {
            return ConfinedFolder{resolved, below};
        }
    }
    return std::nullopt;
}

/// -1, with errno, on failure.
int OpenStep(int parent, const char* name, MissingFolders missing) {
    const int folder = ::openat(parent, name, kAsFolder);
    if (folder >= 0 || errno != ENOENT || missing == MissingFolders::Refused) {
        return folder;
    }
    if (::mkdirat(parent, name, kFolderMode) != 0 && errno != EEXIST) {
        return -1;
    }
    ::fsync(parent);  // a file that is safe on the disk must not go with its folder when the power does
    return ::openat(parent, name, kAsFolder);
}

/// Step by step from the root, and never through a link: one that was not there a moment ago leads nowhere.
FileError OpenFolder(const ConfinedFolder& confined, MissingFolders missing, ZFileDescriptor& folder) {
    folder.Reset(::open(confined.root.c_str(), kAsFolder));
    if (!folder) {
        return SystemError(errno);
    }
    for (const fs::path& step : confined.below) {
        if (step.empty()) {
            continue;  // behind a folder that is not there yet, and was named with a dot
        }
        ZFileDescriptor next(OpenStep(folder.Get(), step.c_str(), missing));
        if (!next) {
            return SystemError(errno);
        }
        folder = std::move(next);
    }
    return {};
}

FileError CheckPresent(const FilePlace& place) {
    struct stat present {};
    if (::fstatat(place.folder.Get(), place.name.c_str(), &present, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? FileError() : SystemError(errno);
    }
    if (S_ISDIR(present.st_mode)) {
        return SystemError(EISDIR);
    }
    return S_ISREG(present.st_mode) ? FileError() : BadRequest("there is something that is no regular file");
}

}  // namespace

FileError FindPlace(const std::vector<fs::path>& roots, std::string_view path, MissingFolders missing,
                    FilePlace& place) {
    if (FileError error = CheckText(path)) {
        return error;
    }
    const fs::path asked(path);
    std::error_code code;
    const fs::path folder = fs::weakly_canonical(asked.parent_path(), code);
    if (code) {
        return SystemError(code.value());
    }
    const auto confined = Confine(roots, folder);
    if (!confined) {
        return BadRequest("it is outside the folders that files may be in");
    }
    place.name = asked.filename().string();
    place.path = folder / place.name;
    if (FileError error = OpenFolder(*confined, missing, place.folder)) {
        return error;
    }
    return CheckPresent(place);
}

std::string NewTemporaryName() {
    return '.' + std::to_string(::arc4random()) + '-' + std::to_string(::arc4random()) + std::string(kTemporaryEnd);
}

bool IsTemporaryName(std::string_view name) {
    return name.starts_with('.') && name.ends_with(kTemporaryEnd);
}
