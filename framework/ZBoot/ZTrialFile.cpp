#include "ZBoot/ZTrialFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <thread>

#include "ZShared/ZDeadline.h"
#include "ZShared/ZLockFile.h"
#include "ZTrust/Sha256.h"

namespace fs = std::filesystem;

namespace {

// Each generation: magic, 64 hexadecimal digits, a line feed, the state, a line feed, and zeros up to its size.
constexpr std::size_t kGeneration = std::size_t{16} * 1024;
constexpr std::string_view kMagic = "arbor-trial ";
constexpr std::size_t kDigest = 64;
constexpr std::size_t kHead = kMagic.size() + kDigest + 1;

struct Generations {
    std::array<std::optional<ZTrialState>, 2> states;

    /// The newer one of the whole ones; none when neither is.
    const ZTrialState* Newest() const {
        const auto& [first, second] = states;
        if (first && (!second || first->sequence > second->sequence)) {
            return &*first;
        }
        return second ? &*second : nullptr;
    }
    std::size_t Older() const { return Newest() == nullptr || Newest() != &*states[0] ? 0 : 1; }
};

std::optional<ZTrialState> ReadGeneration(const std::string& bytes) {
    const auto end = bytes.find('\0');
    const std::string_view text = std::string_view(bytes).substr(0, end);
    if (text.size() <= kHead || !text.starts_with(kMagic) ||
        text.substr(kMagic.size(), kDigest) != ztrust::Sha256Hex(text.substr(kHead))) {
        return std::nullopt;
    }
    return ZTrialState::Parse(text.substr(kHead));
}

Generations ReadAll(int file) {
    Generations found;
    for (std::size_t index = 0; index < found.states.size(); ++index) {
        std::string bytes(kGeneration, '\0');
        const ssize_t count = ::pread(file, bytes.data(), bytes.size(), static_cast<off_t>(index * kGeneration));
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        found.states.at(index) = ReadGeneration(bytes);
    }
    return found;
}

bool WriteGeneration(int file, std::size_t index, const ZTrialState& state) {
    const std::string text = state.ToText() + "\n";
    std::string bytes = std::string(kMagic) + ztrust::Sha256Hex(text) + "\n" + text;
    if (bytes.size() >= kGeneration) {
        errno = EFBIG;
        return false;
    }
    bytes.resize(kGeneration, '\0');
    const auto offset = static_cast<off_t>(index * kGeneration);
    const ssize_t count = ::pwrite(file, bytes.data(), bytes.size(), offset);
    if (count >= 0 && static_cast<std::size_t>(count) != bytes.size()) {
        errno = ENOSPC;
        return false;
    }
    return count >= 0 && ::fsync(file) == 0;
}

/// Waits for whoever has it, at most ten seconds: a change takes milliseconds.
bool Lock(int file, int operation) {
    const auto deadline = ZClock::now() + std::chrono::seconds(10);
    while (::flock(file, operation | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return false;
        }
        if (ZClock::now() > deadline) {
            errno = ETIMEDOUT;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

bool IsEmpty(int file) {
    struct stat status {};
    return ::fstat(file, &status) == 0 && status.st_size == 0;
}

bool SyncFolder(const fs::path& folder) {
    const ZFileDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor && ::fsync(descriptor.Get()) == 0;
}

}  // namespace

ZTrialFile::ZTrialFile(std::string path) : m_path(std::move(path)) {}

ZResult<ZTrialState> ZTrialFile::Read() const {
    const ZFileDescriptor file(::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file) {
        return errno == ENOENT ? ZResult<ZTrialState>(ZTrialState()) : ZError::OfSystem(m_path, errno);
    }
    if (!Lock(file.Get(), LOCK_SH)) {
        return ZError::OfSystem(m_path, errno);
    }
    const Generations found = ReadAll(file.Get());
    if (const ZTrialState* const newest = found.Newest()) {
        return *newest;
    }
    if (IsEmpty(file.Get())) {
        return ZTrialState();
    }
    return ZError(m_path + ": neither of its generations is whole");
}

ZResult<ZTrialState> ZTrialFile::Change(const std::function<void(ZTrialState&)>& change) {
    std::error_code ignored;
    fs::create_directories(fs::path(m_path).parent_path(), ignored);
    const bool isNew = !fs::exists(m_path, ignored);
    const ZFileDescriptor file = OpenLockFile(m_path, O_RDWR);
    if (!file || !Lock(file.Get(), LOCK_EX)) {
        return ZError::OfSystem(m_path, errno);
    }
    const Generations found = ReadAll(file.Get());
    ZTrialState state = found.Newest() != nullptr ? *found.Newest() : ZTrialState();
    const std::string before = state.ToText();
    change(state);
    if (found.Newest() != nullptr && state.ToText() == before) {
        return state;
    }
    ++state.sequence;
    if (!WriteGeneration(file.Get(), found.Older(), state) || (isNew && !SyncFolder(fs::path(m_path).parent_path()))) {
        return ZError::OfSystem(m_path, errno);
    }
    return state;
}
