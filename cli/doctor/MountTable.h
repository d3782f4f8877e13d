#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace arborctl::doctor {

/// One line of the kernel's table of mounts.
struct Mount {
    std::string path;
    std::string device;
    std::string type;
    bool isReadOnly = false;
    bool isNoExec = false;
    bool hears = false;  ///< what is mounted below it elsewhere comes here, too (shared, or a slave)
};

/// The line of a mountinfo file; an empty path when it is none.
Mount ParseMount(std::string_view line);
/// As this process sees them.
std::vector<Mount> OwnMounts();
/// The one that the path lies on; nullptr when the table is empty. The last of several at one place counts.
const Mount* MountOf(const std::vector<Mount>& mounts, const std::string& path);
/// The one at that very place; nullptr when there is none.
const Mount* MountAt(const std::vector<Mount>& mounts, const std::string& path);
/// Whether the path is `folder`, or lies below it.
bool LiesIn(const std::string& path, const std::string& folder);

}  // namespace arborctl::doctor
