#include "InstallRecord.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "ZMessages/ZJSONCommStream.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZProcess.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kLargestFile = 4096;
constexpr const char* kKernelCommandLine = "/proc/cmdline";
constexpr const char* kBootedSlot = "/run/arbor-boot/slot";  // written by a boot whose kernel is not told

/// A short file's text without the white space at its end; empty when there is none.
std::string ReadShort(const fs::path& file) {
    std::ifstream input(file, std::ios::binary);
    std::string text(kLargestFile, '\0');
    input.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(input.gcount()));
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    return text;
}

bool IsSlot(const std::string& name) {
    return name == "A" || name == "B";
}

std::string SlotOfKernel() {
    std::istringstream options(ReadShort(kKernelCommandLine));
    constexpr std::string_view kOption = "arbor.slot=";
    std::string slot;
    for (std::string option; options >> option;) {
        if (option.starts_with(kOption)) {
            slot = option.substr(kOption.size());  // the last one counts, as everywhere on that line
        }
    }
    return slot;
}

/// As the first install of this boot noted it; when there was none, the boot took what is next.
std::string SlotOfNote(const fs::path& slots, const std::string& next) {
    ZJSONCommStream stream;
    ZString bootId;
    ZString slot;
    const bool known = stream.LoadText(ReadShort(slots / "running")) && stream.ReadString("bootId", bootId) &&
                       stream.ReadString("slot", slot) && bootId == ToZString(BootId());
    return known ? ToStdString(slot) : next;
}

std::string RunningSlot(const fs::path& slots, const std::string& next) {
    for (const std::string& told : {SlotOfKernel(), ReadShort(kBootedSlot)}) {
        if (!told.empty()) {
            return told;
        }
    }
    return SlotOfNote(slots, next);
}

}  // namespace

std::shared_ptr<ZInstallRecordMsg> ReadInstallRecord(const fs::path& slots) {
    ZJSONCommStream stream;
    auto record = Z_MAKE(ZInstallRecordMsg);
    const bool read = stream.LoadText(ReadShort(slots / "last.json")) && record->Deserialize(stream);
    return read ? record : nullptr;
}

SlotState ReadSlots(const fs::path& slots) {
    SlotState state;
    std::error_code error;
    state.next = fs::read_symlink(slots / "active", error).filename().string();
    if (error || !IsSlot(state.next)) {
        return {};
    }
    state.nextVersion = ReadShort(slots / state.next / "version");
    state.running = RunningSlot(slots, state.next);
    if (!IsSlot(state.running)) {
        state.running.clear();
    } else {
        state.runningVersion = ReadShort(slots / state.running / "version");
    }
    return state;
}

bool AreSlotsHeld(const fs::path& slots) {
    const ZFileDescriptor folder(::open(slots.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && ::flock(folder.Get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}
