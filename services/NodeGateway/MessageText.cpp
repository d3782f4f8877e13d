#include "MessageText.h"

#include <cstdint>
#include <string_view>

#include "ZMessages/ZJSONCommStream.h"
#include "ZMessages/ZMessage.h"

namespace gateway {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// Length of the sequence that a first byte announces; 0 when no sequence starts with it.
std::size_t AnnouncedLength(unsigned char first) {
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    return first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

/// Length of the well-formed sequence at the front of `text`, which is not empty; 0 when there is none.
std::size_t SequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const std::size_t length = AnnouncedLength(byte(0));
    if (length > text.size()) {
        return 0;
    }
    std::uint32_t code = length > 1 ? byte(0) & (0x7FU >> length) : byte(0);
    for (std::size_t index = 1; index < length; ++index) {
        if ((byte(index) & 0xC0U) != 0x80) {
            return 0;
        }
        code = code << 6 | (byte(index) & 0x3FU);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    return overlong || surrogate || code > 0x10FFFF ? 0 : length;
}

/// How much of the text's front is well formed.
std::size_t ValidPrefix(std::string_view text) {
    std::size_t position = 0;
    while (position < text.size()) {
        const std::size_t length = SequenceLength(text.substr(position));
        if (length == 0) {
            break;
        }
        position += length;
    }
    return position;
}

}  // namespace

std::string ValidUtf8(std::string text) {
    std::size_t valid = ValidPrefix(text);
    if (valid == text.size()) {
        return text;
    }
    std::string repaired;
    std::string_view rest = text;
    while (!rest.empty()) {
        valid = ValidPrefix(rest);
        repaired += rest.substr(0, valid);
        rest.remove_prefix(valid);
        if (!rest.empty()) {
            repaired += kReplacement;
            rest.remove_prefix(1);
        }
    }
    return repaired;
}

std::string MessageText(const ZMessage& message) {
    ZJSONCommStream stream;
    std::string text;
    message.Save(text, stream);
    return ValidUtf8(std::move(text));
}

}  // namespace gateway
