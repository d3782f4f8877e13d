#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ZShared/ZError.h"

/// What a key may sign.
enum class ZTrustRole : std::uint8_t {
    Trust,        ///< trust documents, and nothing else
    Release,      ///< packages
    Development,  ///< packages for instruments that accept such
};

/// As in JSON: "release".
const char* ToText(ZTrustRole role);

struct ZTrustKey {
    std::string id;         ///< SHA-256 of `publicKey`, 64 lower-case hexadecimal digits
    std::string name;       ///< printable ASCII
    std::string publicKey;  ///< SubjectPublicKeyInfo (DER): Ed25519, or RSA of at least 2,048 bits
    std::vector<ZTrustRole> roles;
    std::vector<std::string> boards;  ///< those that it may sign packages for; none: all

    bool Has(ZTrustRole role) const;
    bool IsFor(const std::string& board) const;
    /// Whether it has signed the text.
    bool HasSigned(const std::string& text, const std::string& signature) const;
};

/// Who is trusted with what, as one trust document says. docs/package-format.md describes it.
struct ZTrustDocument {
    std::string text;  ///< the bytes that are signed
    std::uint32_t number = 0;
    std::string expires;  ///< "2027-01-31", or empty. For people: an instrument's clock may be unset
    std::uint32_t securityFloor = 0;
    std::array<std::uint32_t, 3> thresholds{};  ///< by role, see Threshold()
    std::vector<ZTrustKey> keys;                ///< no two with the same id
    std::vector<std::string> revoked;           ///< digests of packages, see ZPackage::digest

    /// Reads one document, without signatures. An error says which member is wrong.
    static ZResult<ZTrustDocument> Parse(std::string_view text);

    /// How many keys with the role have to sign.
    std::uint32_t Threshold(ZTrustRole role) const { return thresholds.at(static_cast<std::size_t>(role)); }
    /// nullptr when no key has that id.
    const ZTrustKey* Find(const std::string& id) const;
    bool HasRevoked(const std::string& digest) const;
    /// What the signatures of a trust document are over.
    std::string SignedText() const;
};
