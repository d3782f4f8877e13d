#include "ZShared/ZMountTable.h"

#include <libmount/libmount.h>

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
        mounts.push_back(
            {source == nullptr ? "" : source, root == nullptr ? "" : root, target == nullptr ? "" : target});
    }
    return mounts;
}

std::string MountPointOfDevice(const std::string& device) {
    const std::vector<ZMount> mounts = ReadMountTable();
    std::string partly;
    for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount) {
        if (mount->source != device) {
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
