#include "ZShared/ZMountTable.h"

#include <libmount/libmount.h>

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <stdexcept>

std::vector<ZMount> ReadMountTable() {
    constexpr const char* kTable = "/proc/self/mountinfo";
    const std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(mnt_new_table_from_file(kTable),
                                                                          mnt_unref_table);
    const std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> position(mnt_new_iter(MNT_ITER_FORWARD),
                                                                          mnt_free_iter);
    if (!table || !position) {
        throw std::runtime_error(std::string(kTable) + " could not be read");
    }
    std::vector<ZMount> mounts;
    libmnt_fs* entry = nullptr;
    while (mnt_table_next_fs(table.get(), position.get(), &entry) == 0) {
        const char* source = mnt_fs_get_source(entry);
        const char* root = mnt_fs_get_root(entry);
        const char* target = mnt_fs_get_target(entry);
        const char* type = mnt_fs_get_fstype(entry);
        mounts.push_back({source == nullptr ? "" : source, root == nullptr ? "" : root, target == nullptr ? "" : target,
                          mnt_fs_get_devno(entry), mnt_fs_get_id(entry), type == nullptr ? "" : type});
    }
    return mounts;
}

std::string MountPointOfDevice(const std::string& device) {
    struct stat what {};
    const bool isBlock = ::stat(device.c_str(), &what) == 0 && S_ISBLK(what.st_mode);
    std::error_code code;
    const std::string real = std::filesystem::weakly_canonical(device, code).string();
    const auto isOn = [&](const ZMount& mount) {
        const bool isUsers = mount.type.starts_with("fuse");
        return (!isUsers && (mount.source == device || (!code && mount.source == real))) ||
               (isBlock && mount.device == what.st_rdev);
    };
    const std::vector<ZMount> mounts = ReadMountTable();
    std::string partly;
    for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount) {
        if (!isOn(*mount)) {
            continue;
        }
        if (mount->root == "/") {
            return mount->target;
        }
        if (partly.empty()) {
            partly = mount->target;
        }
    }
    return partly;
}
