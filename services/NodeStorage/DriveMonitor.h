#pragma once

#include <poll.h>

#include <array>

#include "DriveRules.h"
#include "FolderWatch.h"

/// How the present drives differ from those before. A drive that was replaced is in both lists.
struct DriveChange {
    std::vector<std::string> added;
    std::vector<std::string> removed;
    bool IsEmpty() const { return added.empty() && removed.empty(); }
};

/// Knows the drives that are present and notices when they change. One thread uses an object at a time.
class DriveMonitor {
public:
    using PollEntries = std::array<pollfd, 3>;

    /// Throws std::system_error when the mount table can't be opened or the system has no watch descriptor left.
    explicit DriveMonitor(DriveRules rules);

    /// What to poll; with any of them ready, Refresh is due.
    PollEntries Entries() const;
    /// Looks again when `polled` (as Entries gave it, after a poll) tells of something, or when the last look failed.
    /// Throws std::runtime_error when the mount table can't be read; nothing is forgotten then.
    DriveChange Refresh(const PollEntries& polled);

    /// The drives found last, sorted.
    std::vector<std::string> Drives() const;

private:
    DriveChange Look();
    std::set<std::string> SameMounts(const std::vector<ZMount>& mounts);

    const DriveRules m_rules;
    ZFileDescriptor m_mountTable;
    FolderWatch m_rootWatch;  // of configured directories that no mount table tells about
    // One watch on each drive's top directory: it ends with the file system, so a drive that was pulled and put back
    // between two looks has another identity even when device, mount point and mount number are the same again.
    FolderWatch m_driveWatch;
    FolderWatch::Identities m_drives;
    std::map<std::string, int> m_mounts;  // the number of the newest mount at each place
    bool m_bDue = false;                  // what polling told of was not looked at yet
};
