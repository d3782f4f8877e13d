#include "Fuzz.h"
#include "ZShared/ZEeprom.h"

// The identity EEPROM, whose checksum is made right where the input asks for it.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto found = ParseTlvInfo({data, size});
    fuzz::Must(!found || found->board.size() <= size, "a text comes from the image");
    fuzz::Must(found.has_value() || !found.error().text.empty(), "an error says why");
    return 0;
}
