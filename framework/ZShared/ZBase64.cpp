#include "ZShared/ZBase64.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace {

constexpr std::size_t kMostBytes = std::size_t{1} << 30U;  // the library counts in int
constexpr std::size_t kMostText = (kMostBytes + 2) / 3 * 4;

/// How many "=" the text ends with; more than two when one stands where none may.
std::size_t Padding(std::string_view text) {
    const std::size_t first = text.find('=');
    if (first == std::string_view::npos) {
        return 0;
    }
    const bool onlyAtTheEnd = text.back() == '=' && text.size() - first <= 2;
    return onlyAtTheEnd ? text.size() - first : 3;
}

}  // namespace

ZString ZBase64::Encode(std::string_view bytes) {
    if (bytes.size() > kMostBytes) {
        throw std::length_error("too much for one base64 text");
    }
    // The encoder ends its text with a zero byte, which a string has room for.
    ZString text((bytes.size() + 2) / 3 * 4, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), reinterpret_cast<const unsigned char*>(bytes.data()),
                    static_cast<int>(bytes.size()));
    return text;
}

bool ZBase64::Decode(std::string_view text, std::vector<char>& bytes) {
    const std::size_t padding = Padding(text);
    if (text.size() % 4 != 0 || text.size() > kMostText || padding > 2) {
        return false;
    }
    bytes.resize(text.size() / 4 * 3);
    if (text.empty()) {
        return true;
    }
    const int count =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    // The decoder leaves out blanks at either end, and a "-" at the last; then its count, which it keeps a multiple of
    // three, is short.
    if (count < 0 || static_cast<std::size_t>(count) != bytes.size()) {
        return false;
    }
    bytes.resize(bytes.size() - padding);
    return true;
}
