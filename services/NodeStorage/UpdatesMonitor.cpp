#include "UpdatesMonitor.h"

#include <fcntl.h>
#include <sys/inotify.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "ZShared/ZLog.h"

namespace {

// The kernel tells that a file was closed a moment before its writer counts as gone.
constexpr int kTries = 5;
constexpr std::chrono::milliseconds kTryAgainAfter{10};

constexpr std::uint32_t kComplete = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr std::uint32_t kGone = IN_DELETE | IN_MOVED_FROM;

constexpr ZLogger Log() {
    return ZLogger("ZNodeStorage");
}

/// Whether any process has the file open for writing: then a read lease is not to be had. Where leases can't be taken
/// at all the answer is no.
bool IsBeingWritten(const std::filesystem::path& file) {
    const ZFileDescriptor reader(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    // A writer that comes while the lease is held makes the kernel send a signal: one that does nothing.
    ::fcntl(reader.Get(), F_SETSIG, SIGURG);
    for (int tries = 0; ::fcntl(reader.Get(), F_SETLEASE, F_RDLCK) != 0; ++tries) {
        if (errno != EAGAIN || tries == kTries) {
            return errno == EAGAIN;
        }
        std::this_thread::sleep_for(kTryAgainAfter);
    }
    ::fcntl(reader.Get(), F_SETLEASE, F_UNLCK);
    return false;
}

}  // namespace

UpdatesMonitor::UpdatesMonitor(const std::filesystem::path& folder)
    : m_folder(folder), m_watch(kComplete | kGone | IN_ATTRIB, FolderWatch::Way::Watched) {
    std::error_code code;
    std::filesystem::create_directories(m_folder, code);
    if (code) {
        Z_LOG(4, "Could not make the updates folder %s: %s", m_folder, code.message());
    }
}

std::vector<UpdatesMonitor::Change> UpdatesMonitor::Changes() {
    FolderWatch::News news = m_watch.Take();
    bool all = news.lost;
    if (news.lost) {
        Z_LOG(3, "Events were lost; reading the whole of %s", m_folder);
    }
    if (m_first || news.changed || news.lost) {
        auto identity = m_watch.Follow({m_folder.string()});
        all |= identity != m_identity;
        m_identity = std::move(identity);
        m_first = false;
    }
    std::vector<Change> changes;
    for (const auto& [name, kinds] : all ? AllEntries() : news.entries) {
        if (IsComplete(name)) {
            const bool mayBeRun = MayBeRun(name);
            const auto [told, isNew] = m_told.try_emplace(name, mayBeRun);
            if (isNew || (kinds & kComplete) != 0 || told->second != mayBeRun) {
                changes.push_back({name, false});
            }
            told->second = mayBeRun;
        } else if (std::error_code code; !std::filesystem::exists(m_folder / name, code) && m_told.erase(name) > 0) {
            changes.push_back({name, true});
        }
    }
    return changes;
}

bool UpdatesMonitor::IsComplete(const std::string& name) const {
    std::error_code code;
    // One that is being written is told of when it is closed.
    return !name.empty() && !name.starts_with('.') && std::filesystem::is_regular_file(m_folder / name, code) &&
           !IsBeingWritten(m_folder / name);
}

bool UpdatesMonitor::MayBeRun(const std::string& name) const {
    using std::filesystem::perms;
    std::error_code code;
    const perms held = std::filesystem::status(m_folder / name, code).permissions();
    return (held & (perms::owner_exec | perms::group_exec | perms::others_exec)) != perms::none;
}

std::map<std::string, std::uint32_t> UpdatesMonitor::AllEntries() const {
    std::map<std::string, std::uint32_t> entries;
    for (const auto& [name, mayBeRun] : m_told) {
        entries[name] = kComplete | kGone;
    }
    std::error_code code;
    for (std::filesystem::directory_iterator entry(m_folder, code), end; !code && entry != end; entry.increment(code)) {
        entries[entry->path().filename().string()] = kComplete | kGone;
    }
    return entries;
}
