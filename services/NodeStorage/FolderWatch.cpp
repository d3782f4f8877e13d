#include "FolderWatch.h"

#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "ZShared/ZLog.h"

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZNodeStorage");
}

constexpr std::uint32_t kOfItself = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr std::uint32_t kOnTheWay = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;
constexpr std::uint32_t kEnded = kOfItself | IN_UNMOUNT | IN_IGNORED;

std::string Joined(const std::string& folder, const std::string& name) {
    return folder == "/" ? folder + name : folder + '/' + name;
}

}  // namespace

FolderWatch::FolderWatch(std::uint32_t kinds, Way way)
    : m_kinds(kinds), m_way(way), m_inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!m_inotify) {
        throw std::system_error(errno, std::generic_category(), "inotify");
    }
}

FolderWatch::Identities FolderWatch::Follow(const std::vector<std::string>& folders,
                                            const std::set<std::string>& same) {
    m_followed = {folders.begin(), folders.end()};
    m_steps = m_followed;
    std::set<int> watches;
    if (m_way == Way::Watched) {
        for (const std::string& folder : folders) {
            for (std::filesystem::path step(folder); step.has_relative_path();) {
                step = step.parent_path();
                m_steps.insert(step.string());
                watches.insert(Watch(step.string(), kOnTheWay));
            }
        }
    }
    // After their ways, so that a folder that is made in between is noticed by one or the other.
    Identities identities;
    for (const std::string& folder : m_followed) {
        const int before = same.contains(folder) ? Watching(folder) : -1;
        if (const int watch = before >= 0 ? before : Watch(folder, m_kinds); watch >= 0) {
            watches.insert(watch);
            identities[folder] = watch;
        }
    }
    Forget(watches);
    return identities;
}

int FolderWatch::Watch(const std::string& path, std::uint32_t kinds) {
    const int watch = ::inotify_add_watch(m_inotify.Get(), path.c_str(), kinds | kOfItself | IN_ONLYDIR | IN_MASK_ADD);
    if (watch >= 0) {
        m_watched[watch].insert(path);
        m_failures.erase(path);
        return watch;
    }
    const int failure = errno;
    if (failure != ENOENT && failure != ENOTDIR && m_failures[path] != failure) {
        m_failures[path] = failure;
        Z_LOG(3, "%s can't be watched: %s", path, std::strerror(failure));
    }
    return watch;
}

int FolderWatch::Watching(const std::string& path) const {
    const auto found =
        std::ranges::find_if(m_watched, [&](const auto& watched) { return watched.second.contains(path); });
    return found == m_watched.end() ? -1 : found->first;
}

void FolderWatch::Forget(const std::set<int>& keep) {
    for (auto entry = m_watched.begin(); entry != m_watched.end();) {
        if (!keep.contains(entry->first)) {
            ::inotify_rm_watch(m_inotify.Get(), entry->first);  // fails when the kernel has ended it already
            entry = m_watched.erase(entry);
            continue;
        }
        std::erase_if(entry->second, [&](const std::string& path) { return !m_steps.contains(path); });
        ++entry;
    }
}

FolderWatch::News FolderWatch::Take() {
    News news;
    alignas(inotify_event) std::array<char, 16'384> buffer;
    ssize_t count = 0;
    while ((count = ::read(m_inotify.Get(), buffer.data(), buffer.size())) > 0) {
        for (const char* at = buffer.data(); at < buffer.data() + count;) {
            inotify_event event{};
            std::memcpy(&event, at, sizeof event);
            at += sizeof event;
            // The name is padded with zeros to the event's length.
            TakeOne(event.wd, event.mask, event.len > 0 ? std::string(at) : std::string(), news);
            at += event.len;
        }
    }
    return news;
}

void FolderWatch::TakeOne(int watch, std::uint32_t kind, const std::string& name, News& news) {
    if ((kind & IN_Q_OVERFLOW) != 0) {
        news.lost = true;
        return;
    }
    const auto paths = m_watched.find(watch);
    if (paths == m_watched.end()) {
        return;  // of a folder that is followed no more
    }
    for (const std::string& path : paths->second) {
        news.changed |= (kind & kEnded) != 0 || m_steps.contains(Joined(path, name));
        if (m_followed.contains(path) && (kind & m_kinds) != 0) {
            news.entries[name] |= kind & m_kinds;
        }
    }
    if ((kind & IN_IGNORED) != 0) {
        m_watched.erase(paths);
    }
}
