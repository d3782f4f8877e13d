#include "Fuzz.h"
#include "ZTrust/ZTrustChain.h"

// A chain of trust documents.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto chain = ZTrustChain::Parse(fuzz::Text(data, size));
    fuzz::Must(chain.has_value() || !chain.error().text.empty(), "an error says why");
    if (chain) {
        fuzz::Must(chain->Last().number > 0, "a document has a number");
        static_cast<void>(chain->CheckLast().has_value());
    }
    return 0;
}
