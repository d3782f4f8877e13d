#include "StateLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <fstream>

namespace fs = std::filesystem;

namespace {

/// Who has the lock, as far as that can be told: "arbord (process 4711)".
std::string HolderOf(int file) {
    std::array<char, 16> text{};
    const ssize_t length = ::pread(file, text.data(), text.size() - 1, 0);
    const std::string id(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    if (id.empty() || id.find_first_not_of("0123456789") != std::string::npos) {
        return "another process";
    }
    std::string name;
    std::getline(std::ifstream("/proc/" + id + "/comm"), name);
    return (name.empty() ? "a process" : name) + " (process " + id + ')';
}

}  // namespace

ZResult<StateLock> StateLock::Take(const fs::path& updatesFolder) {
    std::error_code code;
    fs::create_directories(updatesFolder.parent_path(), code);
    const fs::path folder = fs::weakly_canonical(updatesFolder, code);  // the same lock under whatever name
    const fs::path path = folder.parent_path() / ('.' + folder.filename().string() + ".lock");
    ZFileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!file) {
        return ZError::OfSystem(path.string(), errno);
    }
    if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK
                   ? ZError(HolderOf(file.Get()) + " runs a graph on " + updatesFolder.string() + " already",
                            ZFrameworkErrorCodes::ERRCODE_BUSY)
                   : ZError::OfSystem(path.string(), errno);
    }
    struct stat opened {};
    struct stat named {};
    if (::fstat(file.Get(), &opened) != 0 || ::lstat(path.c_str(), &named) != 0 || opened.st_ino != named.st_ino ||
        !S_ISREG(opened.st_mode) || opened.st_nlink != 1) {
        return ZError(path.string() + " is not a lock file of this program's own");
    }
    const std::string id = std::to_string(::getpid());
    if (::ftruncate(file.Get(), 0) != 0 || ::pwrite(file.Get(), id.data(), id.size(), 0) < 0) {
        return ZError::OfSystem(path.string(), errno);
    }
    return StateLock(std::move(file));
}
