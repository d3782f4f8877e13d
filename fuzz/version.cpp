#include "Fuzz.h"
#include "ZSoftwareVersion.h"

// Version texts: their order is one.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz::Text(data, size);
    const auto cut = text.find('\0');
    const ZSoftwareVersion a(ToZString(std::string(text.substr(0, cut))));
    const ZSoftwareVersion b(ToZString(std::string(cut == std::string_view::npos ? text : text.substr(cut + 1))));
    fuzz::Must(!(a < a) && a == a, "a version is itself");
    fuzz::Must(!(a < b) || !(b < a), "one comes first");
    return 0;
}
