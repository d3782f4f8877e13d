#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Base64 as messages carry it: the standard alphabet, padded with "=", in one line (RFC 4648, section 4).
namespace text {

/// How long the text for so many bytes is.
constexpr std::size_t Base64Length(std::size_t bytes) {
    return (bytes + 2) / 3 * 4;
}

/// Writes the text of that length, and a zero byte after it, to `out`. Throws std::length_error for more than 1 GiB.
void EncodeBase64(std::string_view bytes, char* out);

/// The same as a string of whichever kind the caller keeps.
template <typename Text = std::string>
Text Base64(std::string_view bytes) {
    Text out(Base64Length(bytes.size()), '\0');
    EncodeBase64(bytes, out.data());  // a string has room for the zero byte
    return out;
}

/// Puts what `base64` stands for into `bytes`, whose memory is used again. False, with `bytes` in no particular state,
/// when anything else than the 64 characters is in it, when "=" stands anywhere but as its last one or two characters,
/// or when its length is no multiple of four. An empty text stands for no bytes.
bool DecodeBase64(std::string_view base64, std::vector<char>& bytes);

}  // namespace text
