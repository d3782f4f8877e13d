#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ZShared/ZFileDescriptor.h"

/// Tells what happens in folders, through inotify. Folders need not exist: with their way watched, their coming, going
/// and being replaced is told too. One thread uses an object.
class FolderWatch {
public:
    /// What the kernel counts as one directory's life: another one at the same path has another identity.
    using Identities = std::map<std::string, int>;

    struct News {
        std::map<std::string, std::uint32_t>
            entries;           ///< of followed folders: what happened to each, of what is wanted
        bool changed = false;  ///< a folder came, went or was replaced, or may have: Follow again
        bool lost = false;     ///< the kernel dropped events: look for yourself
    };

    enum class Way { Ignored, Watched };

    /// `kinds` are the inotify events wanted of what is in the folders. Throws std::system_error when the system has no
    /// watch descriptor left.
    FolderWatch(std::uint32_t kinds, Way way);

    /// Readable when there is news. Owned by this object.
    int Descriptor() const noexcept { return m_inotify.Get(); }

    /// Follows these folders (absolute paths) in place of those before. Returns the ones that exist and could be
    /// watched; one that could not is logged. Of those in `same` the caller knows that they are no other folders than
    /// before: where their watch has not ended they are not looked up, which could wait for a drive that is silent.
    Identities Follow(const std::vector<std::string>& folders, const std::set<std::string>& same = {});

    /// What has happened since the last call. Never waits.
    News Take();

private:
    int Watch(const std::string& path, std::uint32_t kinds);
    /// The watch on that path; negative when there is none any more.
    int Watching(const std::string& path) const;
    void Forget(const std::set<int>& keep);
    void TakeOne(int watch, std::uint32_t kind, const std::string& name, News& news);

    const std::uint32_t m_kinds;
    const Way m_way;
    ZFileDescriptor m_inotify;
    std::set<std::string> m_followed;
    std::set<std::string> m_steps;                   // the followed folders and all directories above them
    std::map<int, std::set<std::string>> m_watched;  // kernel's number to paths: several when mounts share a directory
    std::map<std::string, int> m_failures;           // path to errno, so that a failure is logged once
};
