#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "ZShared/ZError.h"

/// A key as the cipher takes it.
using LinkKeyBytes = std::array<std::uint8_t, 32>;

/// A device's CURVE keys (RFC 26 of the ZeroMQ project), as 64 lower-case hexadecimal digits each: unlike the project's
/// own notation, these need no quoting in a shell.
struct LinkKeyPair {
    std::string publicKey;
    std::string secretKey;
};

/// Nothing when the text is not a key.
std::optional<LinkKeyBytes> LinkKeyFrom(const std::string& text);
std::string LinkKeyText(const LinkKeyBytes& key);

/// The key pair in a file, {"publicKey": ..., "secretKey": ...}; when there is no such file, a new pair, written there
/// for its owner alone, whole or not at all. An error that names the file when it can't be read or written, or holds
/// anything but a matching pair.
ZResult<LinkKeyPair> LoadOrMakeLinkKeys(const std::filesystem::path& file);
