#pragma once

#include <string>
#include <vector>

#include "ZShared/ZMountTable.h"

/// Which places count as drives. All paths are absolute and normal, without a slash at the end.
struct DriveRules {
    std::vector<std::string> removableRoots;  ///< every mount below one of them counts, at any depth
    std::vector<std::string> roots;  ///< these count while something is mounted there or the directory is filled
    std::vector<std::string> excludedRoots;  ///< nothing there or below counts
};

/// The drives that are present, sorted, each once.
std::vector<std::string> FindDrives(const DriveRules& rules, const std::vector<ZMount>& mounts);
