#include "text/Escape.h"

#include "text/Hex.h"
#include "text/Utf8.h"

namespace text {

namespace {

bool IsSafe(char32_t codePoint) {
    const bool control = codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F);
    const bool directionMark = codePoint == 0x200E || codePoint == 0x200F || codePoint == 0x061C ||
                               (codePoint >= 0x202A && codePoint <= 0x202E) ||
                               (codePoint >= 0x2066 && codePoint <= 0x2069);
    const bool lineBreak = codePoint == 0x2028 || codePoint == 0x2029;
    return !control && !directionMark && !lineBreak;
}

void AppendEscape(std::string& out, char byte) {
    switch (byte) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            out += "\\x";
            AppendHex(out, static_cast<unsigned char>(byte));
    }
}

}  // namespace

std::string Escaped(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    while (!bytes.empty()) {
        char32_t codePoint = 0;
        const std::size_t length = DecodeUtf8(bytes, codePoint);
        const std::size_t taken = length == 0 ? 1 : length;
        if (length != 0 && IsSafe(codePoint)) {
            out += bytes.substr(0, length);
        } else {
            for (const char byte : bytes.substr(0, taken)) {
                AppendEscape(out, byte);
            }
        }
        bytes.remove_prefix(taken);
    }
    return out;
}

}  // namespace text
