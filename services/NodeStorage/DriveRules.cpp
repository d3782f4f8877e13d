#include "DriveRules.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace {

bool IsBelow(const std::string& path, const std::string& root) {
    const std::string start = root == "/" ? root : root + '/';
    return path.size() > start.size() && path.starts_with(start);
}

bool IsFilledDirectory(const std::string& path) {
    std::error_code code;
    const std::filesystem::directory_iterator entries(path, code);
    return !code && entries != std::filesystem::directory_iterator();
}

}  // namespace

std::vector<std::string> FindDrives(const DriveRules& rules, const std::vector<ZMount>& mounts) {
    std::set<std::string> drives;
    for (const ZMount& mount : mounts) {
        const auto contains = [&](const std::string& root) { return IsBelow(mount.target, root); };
        if (std::ranges::any_of(rules.removableRoots, contains)) {
            drives.insert(mount.target);
        }
    }
    for (const std::string& root : rules.roots) {
        const auto isThere = [&](const ZMount& mount) { return mount.target == root; };
        if (std::ranges::any_of(mounts, isThere) || IsFilledDirectory(root)) {
            drives.insert(root);
        }
    }
    std::erase_if(drives, [&](const std::string& drive) {
        return std::ranges::any_of(rules.excludedRoots, [&](const std::string& excluded) {
            return drive == excluded || IsBelow(drive, excluded);
        });
    });
    return {drives.begin(), drives.end()};
}
