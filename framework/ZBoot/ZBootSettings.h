#pragma once

#include <cstdint>
#include <string>

#include "ZShared/ZError.h"

/// How this device boots: one small file that the start of the boot, the host and the installer read alike
/// (docs/trial.md). A setting that the file does not name has the value here.
struct ZBootSettings {
    /// "link", "uboot-env", "systemd-boot" or "command".
    std::string control = "link";
    /// The slots' folder: A and B with version and digest, and the link "active".
    std::string slots = "/media/mmcblk1p3/Slots";
    /// The file with the state of trials; on storage that an update keeps.
    std::string state = "/var/lib/arbor/trial";
    /// Where the boot tells the slot that it started from, when the kernel's command line has no "arbor.slot=".
    std::string runningSlotFile = "/run/arbor-boot/slot";
    std::string kernelCommandLine = "/proc/cmdline";
    /// What tells one boot from another.
    std::string bootIdFile = "/proc/sys/kernel/random/boot_id";
    /// Of "command": the shell command that is asked; "running", "next", "activate SLOT" or "good" comes behind it. The
    /// first two print a slot.
    std::string command{};
    /// Of "uboot-env": the name of the variable with the slot, and the commands that read and write variables.
    std::string slotVariable = "slot";
    std::string printEnvironment = "fw_printenv";
    std::string setEnvironment = "fw_setenv";
    /// Of "systemd-boot": the folder with the loader's entries, on the EFI system partition.
    std::string entries = "/boot/efi/loader/entries";
    /// Starts that a version has to prove itself.
    std::uint32_t attempts = 3;
    /// The shell command that restarts the device.
    std::string restart = "systemctl reboot";

    static constexpr const char* kFile = "/etc/arbor/boot.json";

    /// The settings of a file; without one those above. An error names the file and the setting.
    static ZResult<ZBootSettings> Load(const std::string& file);
};
