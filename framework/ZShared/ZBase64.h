#pragma once

#include <string_view>

#include "ZShared/ZAllocator.h"

/// Base64 as messages carry it: the standard alphabet, padded with "=", in one line. Thread-safe.
class ZBase64 {
public:
    /// Throws std::length_error for more than 1 GiB.
    static ZString Encode(std::string_view bytes);

    /// Puts what the text stands for into `bytes`, whose memory is used again. False, with `bytes` in no particular
    /// state, when anything else than the 64 characters is in the text, when "=" stands anywhere but as its last one or
    /// two characters, or when its length is no multiple of four. An empty text stands for no bytes.
    static bool Decode(std::string_view text, std::vector<char>& bytes);
};
