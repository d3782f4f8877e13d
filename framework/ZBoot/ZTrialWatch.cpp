#include "ZBoot/ZTrialWatch.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <filesystem>

#include "ZShared/ZLockFile.h"

namespace {

std::string LockFile(const std::string& stateFile) {
    return stateFile + ".watched";
}

}  // namespace

ZResult<ZTrialWatch> ZTrialWatch::Hold(const std::string& stateFile) {
    const std::string path = LockFile(stateFile);
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    ZFileDescriptor file = OpenLockFile(path, O_RDWR);
    if (!file || ::flock(file.Get(), LOCK_EX | LOCK_NB) != 0) {
        return ZError::OfSystem(path, errno);
    }
    return ZTrialWatch(std::move(file));
}

bool ZTrialWatch::IsHeld(const std::string& stateFile) {
    const ZFileDescriptor file(::open(LockFile(stateFile).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    return file && ::flock(file.Get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}
