#pragma once

#include <cstdint>
#include <string>

#include "ZShared/ZError.h"

/// How this device boots: one small file that the start of the boot, the host and the installer read alike
/// (docs/trial.md). A setting that the file does not name has the value here.
struct ZBootSettings {
    /// What each means, and what it may be, is declared once, in ZBootSettings.cpp: Schema() tells it.
    std::string control = "link";
    std::string slots = "/media/mmcblk1p3/Slots";
    std::string state = "/var/lib/arbor/trial";
    std::string runningSlotFile = "/run/arbor-boot/slot";
    std::string kernelCommandLine = "/proc/cmdline";
    std::string bootIdFile = "/proc/sys/kernel/random/boot_id";
    std::string command{};
    std::string slotVariable = "slot";
    std::string printEnvironment = "fw_printenv";
    std::string setEnvironment = "fw_setenv";
    std::string entries = "/boot/efi/loader/entries";
    std::uint32_t attempts = 3;
    std::string restart = "systemctl reboot";

    static constexpr const char* kFile = "/etc/arbor/boot.json";

    /// The settings of a file; without one those above. An error names the file and the setting.
    static ZResult<ZBootSettings> Load(const std::string& file);
    /// The JSON Schema of such a file.
    static std::string Schema();
};
