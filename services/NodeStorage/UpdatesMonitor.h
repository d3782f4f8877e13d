#pragma once

#include <filesystem>

#include "FolderWatch.h"

/// Notices files that become complete in one folder (closed after writing, or moved in), that may be run from then on
/// or no longer, and that go. Names that start with a dot are somebody's work in progress and never told. One thread
/// uses an object.
class UpdatesMonitor {
public:
    /// The folder is made when it is missing; a failure to do so is logged, and the folder noticed when it comes.
    /// Throws std::system_error when the system has no watch descriptor left.
    explicit UpdatesMonitor(const std::filesystem::path& folder);

    struct Change {
        std::string name;
        bool removed = false;
    };

    /// Readable when Changes is worth calling. Owned by this object.
    int Descriptor() const noexcept { return m_watch.Descriptor(); }

    /// What has changed since the last call, by name. The first call, a folder that was replaced and events that the
    /// kernel dropped make it name all files that are there, so a file may be named more than once.
    std::vector<Change> Changes();

private:
    bool IsComplete(const std::string& name) const;
    bool MayBeRun(const std::string& name) const;
    /// The files that are there, and those that were, each as if all had happened to it.
    std::map<std::string, std::uint32_t> AllEntries() const;

    const std::filesystem::path m_folder;
    FolderWatch m_watch;
    FolderWatch::Identities m_identity;
    std::map<std::string, bool> m_told;  // the complete files, and whether they could be run
    bool m_first = true;
};
