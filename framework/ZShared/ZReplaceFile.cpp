#include "ZShared/ZReplaceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "ZShared/ZFileDescriptor.h"

namespace {

bool WriteAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        bytes.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    return true;
}

/// Some file systems keep their folders safe by themselves and know no such call.
bool Sync(int file) {
    return ::fsync(file) == 0 || errno == EINVAL;
}

/// Without it the new name may be lost with the power; the old file is whole then.
void SyncFolderOf(const std::filesystem::path& file) {
    const auto path = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
    const ZFileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    static_cast<void>(::fsync(folder.Get()));
}

}  // namespace

ZResult<void> ReplaceFile(const std::filesystem::path& file, std::string_view bytes, std::optional<mode_t> mode) {
    // Under a name of its own until it is whole.
    const std::string temporary = file.string() + ".new";
    ::unlink(temporary.c_str());
    const ZFileDescriptor output(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode.value_or(0666)));
    if (mode && output) {
        static_cast<void>(::fchmod(output.Get(), *mode));  // what new files usually are not allowed was left out
    }
    if (output && WriteAll(output.Get(), bytes) && Sync(output.Get()) &&
        ::rename(temporary.c_str(), file.c_str()) == 0) {
        SyncFolderOf(file);
        return {};
    }
    const auto error = ZError::OfSystem(file.string() + " could not be written", errno);
    ::unlink(temporary.c_str());
    return error;
}
