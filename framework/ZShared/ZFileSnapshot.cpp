#include "ZShared/ZFileSnapshot.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

namespace {

// Whoever else writes there must not be kept from it by a copy.
constexpr std::uint64_t kLeftFree = std::uint64_t{64} << 20U;
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

constexpr int kDone = -1;  // reported; nothing reported means that the child has died

constexpr int kFile = ZForkedChild::kKept + 1;  // the next that is free in the child

/// Opens the file as kFile, once it is known that opening it does nothing.
int OpenRegular(const char* path) {
    constexpr const char* kLookedAt = "/proc/self/fd/5";
    const int found = ::open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    struct stat status {};
    if (found < 0 || ::fstat(found, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
    }
    const int file = found == kFile ? ::open(kLookedAt, O_RDONLY | O_NONBLOCK | O_CLOEXEC) : -1;
    return file >= 0 && ::dup3(file, kFile, O_CLOEXEC) == kFile ? 0 : errno;
}

int CopyEnds(const char* path, int to, ZSnapshotSize wanted) {
    if (const int error = OpenRegular(path); error != 0) {
        return error;
    }
    const int from = kFile;
    struct stat status {};
    if (::fstat(from, &status) != 0) {
        return errno;
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

/// Room for `size` bytes, without a name.
ZResult<ZFileDescriptor> FileWithoutName(const std::string& folder, off_t size) {
    struct statvfs space {};
    if (::statvfs(folder.c_str(), &space) != 0) {
        return ZError::OfSystem(folder, errno);
    }
    if (space.f_bavail * space.f_frsize < static_cast<std::uint64_t>(size) + kLeftFree) {
        return ZError::OfSystem(folder, ENOSPC);
    }
    ZFileDescriptor file(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0700));
    if (!file || ::fchmod(file.Get(), 0555) != 0) {
        return ZError::OfSystem(folder, errno);
    }
    // So that several at once don't take the same room; where that is not known it shows when they write.
    if (::fallocate(file.Get(), 0, 0, size) != 0 && errno != EOPNOTSUPP) {
        return ZError::OfSystem(folder, errno);
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

std::string ZFileSnapshot::Path() const {
    return "/proc/" + std::to_string(keeper.Id()) + "/fd/" + std::to_string(kFile);
}

ZResult<ZFileSnapshot> SnapshotFile(const std::string& path, ZSnapshotSize size, std::chrono::milliseconds limit) {
    auto copy = MemoryFile();
    if (!copy) {
        return copy.error();
    }
    ZForkedChild child;
    const auto keep = [&] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // the file is not kept open for nobody
        const int error = CopyEnds(path.c_str(), ZForkedChild::kKept, size);
        const int report = error == 0 ? kDone : error;
        ::close(ZForkedChild::kKept);
        static_cast<void>(::write(ZForkedChild::kReport, &report, sizeof report));
        if (error != 0) {
            ::_exit(0);
        }
        for (;;) {
            ::pause();
        }
    };
    if (const auto started = child.Start(path, keep, {copy->Get(), -1}); !started) {
        return started.error();
    }
    const auto reported = child.Report(limit);
    if (!reported) {
        return reported.error();
    }
    if (*reported != kDone) {
        return Refused(path, *reported == 0 ? EIO : *reported);
    }
    if (::fcntl(copy->Get(), F_ADD_SEALS, kAllSeals) != 0) {
        return ZError::OfSystem(path, errno);
    }
    return ZFileSnapshot{std::move(*copy), std::move(child)};
}

ZResult<ZFileDescriptor> CopyWhole(const ZFileSnapshot& file, const std::string& folder,
                                   std::chrono::milliseconds limit) {
    struct stat status {};
    if (::fstat(file.copy.Get(), &status) != 0) {
        return ZError::OfSystem(folder, errno);
    }
    const auto copy = FileWithoutName(folder, status.st_size);
    if (!copy) {
        return copy.error();
    }
    const std::string path = file.Path();
    const auto body = [&] {
        const int from = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const int error = from < 0 ? errno : CopyBytes(from, ZForkedChild::kKept, 0, status.st_size);
        const int report = error == 0 ? kDone : error;
        static_cast<void>(::write(ZForkedChild::kReport, &report, sizeof report));
        ::_exit(0);
    };
    ZForkedChild child;
    if (const auto started = child.Start("the copy in " + folder, body, {copy->Get(), -1}); !started) {
        return started.error();
    }
    const auto reported = child.Report(limit);
    if (!reported) {
        return reported.error();
    }
    child.Reap();
    if (*reported != kDone) {
        return ZError::OfSystem("the copy in " + folder, *reported == 0 ? EIO : *reported);
    }
    // What is open for writing can't be executed.
    ZFileDescriptor reader(::open(("/proc/self/fd/" + std::to_string(copy->Get())).c_str(), O_RDONLY | O_CLOEXEC));
    if (!reader) {
        return ZError::OfSystem("the copy in " + folder, errno);
    }
    return reader;
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
