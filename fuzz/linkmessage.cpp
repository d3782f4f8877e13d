#include "NodeLink/LinkMessage.h"
#include "Fuzz.h"

// What a device that was let in sends: frames of a message, cut where the input says.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto owner = std::make_shared<const std::string>(fuzz::Text(data, size));
    std::string_view rest = *owner;
    LinkFrames frames;
    while (!rest.empty() && frames.size() < 64) {
        std::size_t length = fuzz::TakeByte(rest);
        length = std::min(length << ((length & 1U) != 0 ? 6U : 0U), rest.size());
        frames.push_back({owner, rest.substr(0, length)});
        rest.remove_prefix(length);
    }
    const auto decoded = DecodeLinkMessage(std::move(frames));
    if (decoded && decoded->message) {
        const auto again = DecodeLinkMessage(EncodeLinkMessage(*decoded));
        fuzz::Must(again.has_value(), "what was read can be sent");
    }
    return 0;
}
