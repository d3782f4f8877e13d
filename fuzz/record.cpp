#include <filesystem>

#include "Fuzz.h"
#include "InstallRecord.h"

// What an installer, which may be anybody's, leaves beside the slots.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::filesystem::path folder = [] {
        char name[] = "/tmp/arbor-fuzz-XXXXXX";
        return std::filesystem::path(::mkdtemp(name));
    }();
    const fuzz::File file(fuzz::Text(data, size));
    std::error_code error;
    std::filesystem::remove(folder / "last.json", error);
    std::filesystem::create_symlink(file.Path(), folder / "last.json", error);
    ReadInstallRecord(folder);
    ReadSlots(folder);
    return 0;
}
