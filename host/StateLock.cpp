#include "StateLock.h"

#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "ZShared/ZLockFile.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kArchiveLock = ".arbor.lock";

/// Who holds what is open here, as far as that can be told: "arbord (process 4711)".
std::string HolderOf(const ZFileDescriptor& file) {
    struct stat status {};
    static_cast<void>(::fstat(file.Get(), &status));
    const std::string inode = ':' + std::to_string(status.st_ino) + ' ';
    std::ifstream locks("/proc/locks");  // lines as "1: FLOCK  ADVISORY  WRITE 4711 08:01:123456 0 EOF"
    for (std::string line; std::getline(locks, line);) {
        std::string skipped;
        std::string kind;
        std::string id;
        std::istringstream(line) >> skipped >> kind >> skipped >> skipped >> id;
        std::string name;
        if (kind == "FLOCK" && line.find(inode) != std::string::npos &&
            std::getline(std::ifstream("/proc/" + id + "/comm"), name)) {
            return name += " (process " + id + ')';
        }
    }
    return "another process";
}

}  // namespace

ZResult<StateLock> StateLock::Take(const fs::path& updatesFolder, const std::set<fs::path>& archives) {
    StateLock lock;
    if (!updatesFolder.empty()) {
        std::error_code code;
        fs::create_directories(updatesFolder.parent_path(), code);
        const fs::path folder = fs::weakly_canonical(updatesFolder, code);  // the same lock under whatever name
        const fs::path path = folder.parent_path() / ('.' + folder.filename().string() + ".lock");
        ZFileDescriptor file = OpenLockFile(path.string(), O_RDONLY);
        if (!file) {
            return ZError::OfSystem(path.string(), errno);
        }
        if (const auto held = lock.Hold(std::move(file), updatesFolder); !held) {
            return held.error();
        }
    }
    for (const fs::path& archive : archives) {
        ZFileDescriptor file = OpenLockFile((archive / kArchiveLock).string(), O_RDONLY);
        if (const auto held = file ? lock.Hold(std::move(file), archive) : ZResult<void>(); !held) {
            return held.error();
        }
    }
    return lock;
}

ZResult<void> StateLock::Hold(ZFileDescriptor file, const fs::path& state) {
    if (::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        return errno == EWOULDBLOCK ? ZError(HolderOf(file) + " runs a graph on " + state.string() + " already",
                                             ZFrameworkErrorCodes::ERRCODE_BUSY)
                                    : ZError::OfSystem(state.string(), errno);
    }
    m_held.push_back(std::move(file));
    return {};
}
