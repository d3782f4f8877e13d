#include "Fuzz.h"
#include "ZTrust/ZPackage.h"

// A package of either format, from its head to its trailer.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::File file(fuzz::Text(data, size));
    const auto quick = ZPackage::ReadSecondFormat(file.Descriptor());
    const auto whole = ZPackage::Read(file.Descriptor());
    fuzz::Must(!quick || (whole && whole->digest == quick->digest && whole->version == quick->version),
               "both readers find the same");
    fuzz::Must(!quick || quick->head.size() <= size, "the head is part of the file");
    if (whole) {
        whole->CheckPayload(file.Descriptor());
    }
    ZPackage::ReadSignature(file.Descriptor());
    return 0;
}
