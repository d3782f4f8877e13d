#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace text {

/// The well-formed UTF-8 sequence (RFC 3629: shortest form, no surrogates) at the front of `bytes`: its length, and its
/// code point in `codePoint`. 0, with `codePoint` in no particular state, when there is none.
std::size_t DecodeUtf8(std::string_view bytes, char32_t& codePoint);

/// `bytes` as valid UTF-8: U+FFFD for each byte that belongs to no well-formed sequence.
std::string ValidUtf8(std::string bytes);

}  // namespace text
