#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "ZMessages/OperationMessages.h"

/// Where the installers of every instrument keep the slots, beside the archive that they are told.
inline constexpr const char* kInstallersSlots = "/media/mmcblk1p3/Slots";

/// What the last installer left in `slots`; null when there is none, or it can't be read.
std::shared_ptr<ZInstallRecordMsg> ReadInstallRecord(const std::filesystem::path& slots);

/// The slots as they are now. Texts are empty for what is not known.
struct SlotState {
    std::string running;         ///< the slot that the system was started from, as the boot tells it
    std::string next;            ///< the one it will be started from
    std::string runningVersion;  ///< what stands in each
    std::string nextVersion;
};
SlotState ReadSlots(const std::filesystem::path& slots);

/// Whether an installer, or a boot loader's program that it has asked, may still change `slots`: they hold the lock of
/// that folder, and the last of them to end frees it. Not to be asked beside an installer that starts.
bool AreSlotsHeld(const std::filesystem::path& slots);
