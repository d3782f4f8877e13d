#include "DriveMonitor.h"

#include <fcntl.h>
#include <sys/inotify.h>

#include <cerrno>
#include <system_error>

namespace {
constexpr const char* kMountTable = "/proc/self/mountinfo";
constexpr std::uint32_t kFilling = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;
constexpr int kUnwatched = -1;
}  // namespace

DriveMonitor::DriveMonitor(DriveRules rules)
    : m_rules(std::move(rules)),
      m_mountTable(::open(kMountTable, O_RDONLY | O_CLOEXEC)),
      m_rootWatch(kFilling, FolderWatch::Way::Watched),
      m_driveWatch(0, FolderWatch::Way::Ignored) {
    if (!m_mountTable) {
        throw std::system_error(errno, std::generic_category(), kMountTable);
    }
    Look();
}

DriveMonitor::PollEntries DriveMonitor::Entries() const {
    // A table of the kernel is always readable; that it has changed shows as POLLPRI, once for each poll.
    return {{{m_mountTable.Get(), POLLPRI, 0},
             {m_rootWatch.Descriptor(), POLLIN, 0},
             {m_driveWatch.Descriptor(), POLLIN, 0}}};
}

DriveChange DriveMonitor::Refresh(const PollEntries& polled) {
    const FolderWatch::News roots = m_rootWatch.Take();
    const FolderWatch::News drives = m_driveWatch.Take();
    m_bDue = m_bDue || polled[0].revents != 0 || roots.changed || roots.lost || !roots.entries.empty() ||
             drives.changed || drives.lost;
    if (!m_bDue) {
        return {};
    }
    DriveChange change = Look();
    m_bDue = false;  // not before: the system tells of a change once
    return change;
}

DriveChange DriveMonitor::Look() {
    // Watched before they are looked at: what comes in between is then told by the next poll.
    m_rootWatch.Follow(m_rules.roots);
    const std::vector<ZMount> mounts = ReadMountTable();
    const std::vector<std::string> present = FindDrives(m_rules, mounts);
    const FolderWatch::Identities watched = m_driveWatch.Follow(present, SameMounts(mounts));

    FolderWatch::Identities now;
    DriveChange change;
    for (const std::string& drive : present) {
        const auto watch = watched.find(drive);
        now[drive] = watch == watched.end() ? kUnwatched : watch->second;
        const auto before = m_drives.find(drive);
        if (before == m_drives.end() || before->second != now[drive]) {
            change.added.push_back(drive);
        }
    }
    for (const auto& [drive, identity] : m_drives) {
        const auto after = now.find(drive);
        if (after == now.end() || after->second != identity) {
            change.removed.push_back(drive);
        }
    }
    m_drives = std::move(now);
    return change;
}

/// The places whose mount has the number of the one before. A mount's number is given away when nothing uses it any
/// more; its watch has ended then, but for a file system that is mounted elsewhere too and is the same still.
std::set<std::string> DriveMonitor::SameMounts(const std::vector<ZMount>& mounts) {
    std::map<std::string, int> now;
    for (const ZMount& mount : mounts) {
        now[mount.target] = mount.id;
    }
    std::set<std::string> same;
    for (const auto& [target, id] : now) {
        const auto before = m_mounts.find(target);
        if (before != m_mounts.end() && before->second == id) {
            same.insert(target);
        }
    }
    m_mounts = std::move(now);
    return same;
}

std::vector<std::string> DriveMonitor::Drives() const {
    std::vector<std::string> drives;
    drives.reserve(m_drives.size());
    for (const auto& [drive, identity] : m_drives) {
        drives.push_back(drive);
    }
    return drives;
}
