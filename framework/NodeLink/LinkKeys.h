#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "ZShared/ZError.h"

/// A key as the cipher takes it.
using LinkKeyBytes = std::array<std::uint8_t, 32>;

/// A key that nobody else may learn: its memory is wiped when it goes.
struct LinkSecretKey : LinkKeyBytes {
    ~LinkSecretKey();
};

/// A device's CURVE keys (RFC 26 of the ZeroMQ project).
struct LinkKeyPair {
    std::string publicKey;  ///< as text
    LinkSecretKey secretKey{};
};

/// A key as text has 64 lower-case hexadecimal digits: unlike the ZeroMQ project's own notation, these need no quoting
/// in a shell. Nothing when the text is not a key.
std::optional<LinkKeyBytes> LinkKeyFrom(std::string_view text);
std::string LinkKeyText(const LinkKeyBytes& key);

/// The key pair in a file, {"publicKey": ..., "secretKey": ...}; when there is no such file, a new pair, written there
/// for its owner alone, whole or not at all. An error that names the file when it can't be read or written, is open to
/// anybody but its owner, or holds anything but a matching pair.
ZResult<LinkKeyPair> LoadOrMakeLinkKeys(const std::filesystem::path& file);
