#pragma once

#include <cstdint>
#include <string>

/// What reading a file found, in the order in which it is looked for. The names in JSON are these with a small first
/// letter.
enum class ZVerdictCode : std::uint8_t {
    Good,
    Unreadable,     ///< the medium does not give the bytes
    NotPackage,     ///< neither a package of a known format nor a file with a detached signature
    Damaged,        ///< one that is not whole, or whose description is wrong
    BadSignature,   ///< the signature does not fit the bytes
    WeakKey,        ///< RSA below 2,048 bits, or neither RSA nor Ed25519
    WrongPurpose,   ///< a certificate that is for something else than signing packages
    UnknownSigner,  ///< nobody who is trusted
    NotAllowed,     ///< a key of the trust document, but for something else or for other boards
    TooFewSigners,  ///< fewer keys than the trust document asks for
    Revoked,        ///< the trust document names this package as one to refuse
    BelowFloor,     ///< its security number is below the trust document's floor
    WrongBoard,
};

/// As in JSON: "unknownSigner".
const char* ToText(ZVerdictCode code);

/// A code for programs, and a sentence for people that names what is wrong.
struct ZVerdict {
    ZVerdictCode code = ZVerdictCode::Good;
    std::string sentence;

    bool IsGood() const { return code == ZVerdictCode::Good; }
};
