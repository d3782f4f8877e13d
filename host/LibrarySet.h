#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "ZShared/ZError.h"

/// The node libraries of a graph, unloaded in reverse order when the set goes: after everything that is of their
/// classes.
class LibrarySet {
public:
    LibrarySet() = default;
    ~LibrarySet();
    LibrarySet(const LibrarySet&) = delete;
    LibrarySet& operator=(const LibrarySet&) = delete;

    /// Loads one library, whose classes register themselves. A name is looked for in the folders that go with this
    /// program; anything with a slash is a path, taken from `base` when it is relative. An error when there is none or
    /// it can't be loaded.
    ZResult<void> Load(const std::string& nameOrPath, const std::filesystem::path& base);
    /// Loads every library named libNode*.so that goes with this program.
    ZResult<void> LoadAll();

private:
    std::vector<void*> m_handles;
};
