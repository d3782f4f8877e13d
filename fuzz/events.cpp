#include <algorithm>
#include <string>

#include "Fuzz.h"
#include "SseParser.h"

// An event stream in pieces of any size says what it says in one piece.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest = fuzz::Text(data, size);
    const std::size_t piece = fuzz::TakeByte(rest) % 7 + 1;
    const auto read = [](std::string_view text, std::size_t step) {
        std::string told;
        arborctl::SseParser parser([&](const arborctl::ServerEvent& event) {
            told += event.name + '\1' + event.id + '\1' + event.data + '\2';
        });
        for (; !text.empty(); text.remove_prefix(std::min(step, text.size()))) {
            if (!parser.Feed(text.substr(0, step))) {
                break;
            }
        }
        return told;
    };
    fuzz::Must(read(rest, rest.size() + 1) == read(rest, piece), "pieces make no difference");
    return 0;
}
