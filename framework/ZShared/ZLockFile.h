#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

#include "ZShared/ZFileDescriptor.h"

/// Opens a file that processes lock (flock) to keep out of each other's way, and makes it when it is missing. `flags`
/// as for open. It is for its owner alone, whoever made it: who may open a file may lock it as well, and would keep the
/// others waiting. None, with errno, when it can't be opened; links are not followed.
inline ZFileDescriptor OpenLockFile(const std::string& path, int flags) {
    constexpr mode_t kOfOthers = S_IRWXG | S_IRWXO;
    ZFileDescriptor file(::open(path.c_str(), flags | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    struct stat status {};
    if (file && ::fstat(file.Get(), &status) == 0 && (status.st_mode & kOfOthers) != 0) {
        static_cast<void>(::fchmod(file.Get(), status.st_mode & S_IRWXU));  // some file systems know no modes
    }
    return file;
}
