#include "text/Base64.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace text {

namespace {

constexpr std::size_t kMostBytes = std::size_t{1} << 30U;  // the library counts in int

/// How many "=" the text ends with; more than two when one stands where none may.
std::size_t Padding(std::string_view base64) {
    const std::size_t first = base64.find('=');
    if (first == std::string_view::npos) {
        return 0;
    }
    const bool onlyAtTheEnd = base64.back() == '=' && base64.size() - first <= 2;
    return onlyAtTheEnd ? base64.size() - first : 3;
}

}  // namespace

void EncodeBase64(std::string_view bytes, char* out) {
    if (bytes.size() > kMostBytes) {
        throw std::length_error("too much for one base64 text");
    }
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out), reinterpret_cast<const unsigned char*>(bytes.data()),
                    static_cast<int>(bytes.size()));
}

bool DecodeBase64(std::string_view base64, std::vector<char>& bytes) {
    const std::size_t padding = Padding(base64);
    if (base64.size() % 4 != 0 || base64.size() > Base64Length(kMostBytes) || padding > 2) {
        return false;
    }
    bytes.resize(base64.size() / 4 * 3);
    if (base64.empty()) {
        return true;
    }
    const int count =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(base64.data()), static_cast<int>(base64.size()));
    // The decoder leaves out blanks at either end, and a "-" at the last; then its count, which it keeps a multiple of
    // three, is short.
    if (count < 0 || static_cast<std::size_t>(count) != bytes.size()) {
        return false;
    }
    bytes.resize(bytes.size() - padding);
    return true;
}

}  // namespace text
