#include "ZShared/ZFileSnapshot.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "ZShared/ZForkedChild.h"

namespace {

constexpr int kAllSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

/// Copies the bytes from `begin` to `end`; 0 or an errno. Safe after fork, as what calls it.
int CopyBytes(int from, int to, off_t begin, off_t end) {
    std::array<char, 65536> buffer;
    for (off_t offset = begin; offset < end;) {
        const auto wanted = static_cast<std::size_t>(std::min<off_t>(end - offset, buffer.size()));
        const ssize_t count = ::pread(from, buffer.data(), wanted, offset);
        if (count == 0) {
            return EIO;  // it has become shorter
        }
        if (count < 0 ? errno != EINTR
                      : ::pwrite(to, buffer.data(), static_cast<std::size_t>(count), offset) != count) {
            return errno;
        }
        offset += std::max<ssize_t>(count, 0);
    }
    return 0;
}

int CopyEnds(const char* path, int to, ZSnapshotSize wanted) {
    // Not to wait for the writer of a FIFO.
    const int from = ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    if (from < 0 || ::fstat(from, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    if (::ftruncate(to, status.st_size) != 0) {
        return errno;
    }
    const off_t begin = std::min<off_t>(status.st_size, static_cast<off_t>(wanted.begin));
    const int error = CopyBytes(from, to, 0, begin);
    const off_t end = std::max<off_t>(begin, status.st_size - static_cast<off_t>(wanted.end));
    return error != 0 ? error : CopyBytes(from, to, end, status.st_size);
}

ZResult<ZFileDescriptor> MemoryFile() {
    ZFileDescriptor file(::memfd_create("arbor-package", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file) {
        return ZError::OfSystem("a file in memory", errno);
    }
    return file;
}

ZError Refused(const std::string& path, int error) {
    switch (error) {
        case ELOOP:
            return ZError(path + ": it is a link");
        case EINVAL:
            return ZError(path + ": it is no regular file");
        default:
            return ZError::OfSystem(path, error);
    }
}

}  // namespace

ZResult<ZFileDescriptor> SnapshotFile(const std::string& path, ZSnapshotSize size, std::chrono::milliseconds limit) {
    auto copy = MemoryFile();
    if (!copy) {
        return copy;
    }
    ZForkedChild child;
    const auto started = child.Start(path, [&](int report) {
        const int error = CopyEnds(path.c_str(), copy->Get(), size);
        static_cast<void>(::write(report, &error, sizeof error));
        ::_exit(0);
    });
    if (!started) {
        return started.error();
    }
    const auto reported = child.Report(limit);
    if (!reported) {
        return reported.error();
    }
    child.Reap();
    if (*reported != 0) {
        return Refused(path, *reported);
    }
    ::fcntl(copy->Get(), F_ADD_SEALS, kAllSeals);
    return copy;
}

ZResult<ZFileDescriptor> SealedFile(std::string_view bytes) {
    auto file = MemoryFile();
    if (!file) {
        return file;
    }
    while (!bytes.empty()) {
        const ssize_t count = ::write(file->Get(), bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return ZError::OfSystem("a file in memory", errno);
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    if (::fcntl(file->Get(), F_ADD_SEALS, kAllSeals) != 0) {
        return ZError::OfSystem("a file in memory", errno);
    }
    return file;
}
