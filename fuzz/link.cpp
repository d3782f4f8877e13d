#include <algorithm>
#include <cstring>

#include "Fuzz.h"
#include "NodeLink/LinkKeys.h"
#include "NodeLink/LinkWire.h"

// What a stranger sends to the link's port, in pieces: nothing of it opens the connection, and little of it is kept.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const LinkKeyPair own = [] {
        auto keys = LoadOrMakeLinkKeys("/tmp/arbor-fuzz-link-" + std::to_string(::getpid()) + ".json");
        fuzz::Must(keys.has_value(), "there are keys");
        return *keys;
    }();
    std::string_view rest = fuzz::Text(data, size);
    const bool calls = (fuzz::TakeByte(rest) & 1U) != 0;
    LinkWire wire(calls ? LinkCurve::Side::Caller : LinkCurve::Side::Listener, own,
                  calls ? own.publicKey : std::string());
    auto news = LinkWire::News::None;
    while (!rest.empty() && news != LinkWire::News::Failed) {
        const std::span<char> room = wire.Room();
        fuzz::Must(!room.empty() && room.size() <= 64 * 1024, "there is room, and not too much");
        const std::size_t count =
            std::min({room.size(), rest.size(), static_cast<std::size_t>(fuzz::TakeByte(rest)) + 1});
        std::memcpy(room.data(), rest.data(), std::min(count, rest.size()));
        wire.Filled(std::min(count, rest.size()));
        rest.remove_prefix(std::min(count, rest.size()));
        while ((news = wire.Next()) != LinkWire::News::None && news != LinkWire::News::Failed) {
            fuzz::Must(news == LinkWire::News::Refused, "a stranger opens nothing");
            break;
        }
        fuzz::Must(wire.OutputSize() < 64 * 1024, "answers are short");
    }
    return 0;
}
