#include "UpdatesMonitor.h"

#include <fcntl.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "ZShared/ZLog.h"

namespace {

// The kernel tells that a file was closed a moment before its writer counts as gone.
constexpr int kTries = 5;
constexpr std::chrono::milliseconds kTryAgainAfter{10};

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
    : m_folder(folder), m_watch(IN_CLOSE_WRITE | IN_MOVED_TO, FolderWatch::Way::Watched) {
    std::error_code code;
    std::filesystem::create_directories(m_folder, code);
    if (code) {
        Z_LOG(4, "Could not make the updates folder %s: %s", m_folder, code.message());
    }
}

std::vector<std::string> UpdatesMonitor::NewFiles() {
    FolderWatch::News news = m_watch.Take();
    bool all = news.lost;
    if (news.lost) {
        Z_LOG(3, "Events were lost; reading the whole of %s", m_folder);
    }
    if (m_first || news.changed || news.lost) {
        auto identity = m_watch.Follow({m_folder.string()});
        all |= !identity.empty() && identity != m_identity;
        m_identity = std::move(identity);
        m_first = false;
    }
    std::vector<std::string> files;
    for (const std::string& name : all ? AllNames() : news.names) {
        if (IsComplete(name) && std::ranges::find(files, name) == files.end()) {
            files.push_back(name);
        }
    }
    return files;
}

bool UpdatesMonitor::IsComplete(const std::string& name) const {
    std::error_code code;
    // One that is being written is told of when it is closed.
    return !name.empty() && !name.starts_with('.') && std::filesystem::is_regular_file(m_folder / name, code) &&
           !IsBeingWritten(m_folder / name);
}

std::vector<std::string> UpdatesMonitor::AllNames() const {
    std::vector<std::string> names;
    std::error_code code;
    for (std::filesystem::directory_iterator entry(m_folder, code), end; !code && entry != end; entry.increment(code)) {
        names.push_back(entry->path().filename().string());
    }
    std::ranges::sort(names);
    return names;
}
