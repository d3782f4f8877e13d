#pragma once

#include <filesystem>

#include "FolderWatch.h"

/// Notices files that become complete in one folder: closed after writing, or moved in. Names that start with a dot are
/// somebody's work in progress and never told. One thread uses an object.
class UpdatesMonitor {
public:
    /// The folder is made when it is missing; a failure to do so is logged, and the folder noticed when it comes.
    /// Throws std::system_error when the system has no watch descriptor left.
    explicit UpdatesMonitor(const std::filesystem::path& folder);

    /// Readable when NewFiles is worth calling. Owned by this object.
    int Descriptor() const noexcept { return m_watch.Descriptor(); }

    /// The files that are complete since the last call, in that order. The first call, a folder that was replaced and
    /// events that the kernel dropped make it name all files that are there, so a file may be named more than once.
    std::vector<std::string> NewFiles();

private:
    bool IsComplete(const std::string& name) const;
    std::vector<std::string> AllNames() const;

    const std::filesystem::path m_folder;
    FolderWatch m_watch;
    FolderWatch::Identities m_identity;
    bool m_first = true;
};
