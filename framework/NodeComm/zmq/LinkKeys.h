#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

/// A key as the cipher takes it.
using LinkKeyBytes = std::array<std::uint8_t, 32>;

/// A device's CURVE keys (RFC 26 of the ZeroMQ project), as 64 lower-case hexadecimal digits each: unlike the project's
/// own notation, these need no quoting in a shell.
struct LinkKeyPair {
    std::string publicKey;
    std::string secretKey;
};

/// A device that may be talked to: its key, and how it is reached.
struct ZLinkPin {
    std::string name;  ///< for people
    std::string publicKey;
    std::string address;  ///< where it is called ("tcp://host:port"); empty: it calls
    bool operator==(const ZLinkPin&) const = default;
};

/// Nothing when the text is no key.
std::optional<LinkKeyBytes> LinkKeyFrom(const std::string& text);
std::string LinkKeyText(const LinkKeyBytes& key);

/// The key pair in a file, {"publicKey": ..., "secretKey": ...}; when there is no such file, a new pair, written there
/// for its owner alone. Nothing, with `error`, when it can't be read or written, or holds no matching pair.
std::optional<LinkKeyPair> LoadOrMakeLinkKeys(const std::filesystem::path& file, std::string& error);
