#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct ZMount {
    std::string source;     ///< the device, or the file system's own word where there is none
    std::string root;       ///< the part of the file system that is mounted: "/" for all of it
    std::string target;     ///< the mount point, with the kernel's escapes decoded
    dev_t device = 0;       ///< the number of the device; one of the kernel's own where there is no block device
    int id = 0;             ///< the kernel's number of this mount; it may be another one's once it has ended
    std::string type = {};  ///< of the file system, as "ext4"
};

/// The mounts that this process sees, in the kernel's order. Throws std::runtime_error when the table can't be read.
std::vector<ZMount> ReadMountTable();

/// The mount point of the device's newest mount, of the whole file system if there is such a mount (a bind mount of a
/// folder has the device as its source too); empty when it is not mounted. `device` may be any name of the device, a
/// link as /dev/disk/by-label/data too. Mounts that programs of users make are not believed: they tell any name as
/// their source. Throws as ReadMountTable.
std::string MountPointOfDevice(const std::string& device);
