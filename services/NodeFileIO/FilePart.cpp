#include "FilePart.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

FileError ReadFilePart(const FilePlace& place, std::uint64_t position, std::uint32_t length, std::vector<char>& bytes,
                       std::uint64_t& size) {
    // A pipe that took the file's place meanwhile must not make anybody wait for its writer.
    constexpr int kForReading = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const ZFileDescriptor file(::openat(place.folder.Get(), place.name.c_str(), kForReading));
    struct stat about {};
    if (!file || ::fstat(file.Get(), &about) != 0) {
        return SystemError(errno);
    }
    if (!S_ISREG(about.st_mode)) {
        return BadRequest("there is something that is no regular file");
    }
    size = static_cast<std::uint64_t>(about.st_size);
    const std::uint64_t left = position < size ? size - position : 0;
    bytes.resize(std::min<std::uint64_t>({left, length, kMostOfOnePart}));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count =
            ::pread(file.Get(), bytes.data() + done, bytes.size() - done, static_cast<off_t>(position + done));
        if (count < 0 && errno != EINTR) {
            return SystemError(errno);
        }
        if (count == 0) {
            break;  // it has become shorter
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    bytes.resize(done);
    return {};
}
