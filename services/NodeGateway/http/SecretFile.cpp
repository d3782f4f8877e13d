#include "http/SecretFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "ZShared/ZFileDescriptor.h"

namespace gateway {

namespace {

constexpr std::size_t kLargest = std::size_t{1024} * 1024;

ZResult<FileContent> ReadAll(int file, const std::string& path, std::size_t size) {
    FileContent text(size);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::read(file, text.data() + done, size - done);
        if (count < 0 && errno != EINTR) {
            return ZError::OfSystem(path, errno);
        }
        if (count == 0) {
            break;
        }
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    text.resize(done);
    return text;
}

/// Judges what was opened, not what the name stands for a moment later.
ZResult<FileContent> Read(const std::string& path, bool isSecret) {
    constexpr mode_t kOfOthers = S_IRWXG | S_IRWXO;
    const ZFileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || ::fstat(file.Get(), &status) != 0) {
        return ZError::OfSystem(path, errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return ZError("it is not a regular file").In(path);
    }
    if (isSecret && status.st_uid != 0 && status.st_uid != ::geteuid()) {
        return ZError("it belongs to another user").In(path);
    }
    if (isSecret && (status.st_mode & kOfOthers) != 0) {
        return ZError(
                   "others than its owner may use it; \"chmod 600\", and a new secret if one of them may have read it")
            .In(path);
    }
    if (static_cast<std::size_t>(status.st_size) > kLargest) {
        return ZError("it is larger than 1 MiB").In(path);
    }
    return ReadAll(file.Get(), path, static_cast<std::size_t>(status.st_size));
}

}  // namespace

ZResult<FileContent> ReadSmallFile(const std::string& path) {
    return Read(path, false);
}

ZResult<FileContent> ReadSecretFile(const std::string& path) {
    return Read(path, true);
}

}  // namespace gateway
