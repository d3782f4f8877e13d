#pragma once

#include <boost/system/result.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ZTrust/ZVerdict.h"

/// A part of a package: how many bytes, and their SHA-256 in lower-case hexadecimal digits.
struct ZPackageSection {
    std::uint64_t size = 0;
    std::string sha256;
};

struct ZPackageSignature {
    std::string certificate;  ///< PEM; may be empty where the key is named
    std::string key;          ///< SHA-256 of the public key's SubjectPublicKeyInfo; empty in format 1
    std::string bytes;
};

/// What a package is, read from an open file without running anything of it. The formats are described in
/// docs/package-format.md. Nothing of what it says may be believed before ZTrustedSigners::Judge() says so.
struct ZPackage {
    int format = 0;
    bool isDetached = false;  ///< somebody's own executable with a signature beside it
    std::string version;
    std::string board;
    std::uint32_t securityNumber = 0;
    /// The bytes that run, as they were read: stub, header and code. Empty for a detached signature.
    std::string head;
    ZPackageSection payload;  ///< for a detached signature: the whole file
    std::vector<ZPackageSignature> signatures;
    std::string digest;      ///< the SHA-256 that is signed, in lower-case hexadecimal digits: of the head in format 2
    std::string signedText;  ///< what the signatures are over: it holds the digest
    std::string trust;       ///< the chain of trust documents in the header, JSON; empty when there is none

    /// Where the payload begins.
    std::uint64_t PayloadOffset() const { return head.size(); }

    template <typename T>
    using Result = boost::system::result<T, ZVerdict>;
    using StopQuestion = std::function<bool()>;

    /// Reads the package in the open file. For format 2 that is its head and its trailer, whatever the payload's size;
    /// format 1 is read as a whole, since its signature covers all of it; `isStopped` may end that. An error has one of
    /// the codes Unreadable, NotPackage and Damaged.
    static Result<ZPackage> Read(int file, const StopQuestion& isStopped = {});
    /// The format of the package in the open file; 0 when that is none. Reads its head at most.
    static int FormatOf(int file);
    /// As Read, for format 2 alone: quick, and sure to be, since nothing that the package says makes it read more.
    static Result<ZPackage> ReadSecondFormat(int file);
    /// What a signature that lies beside a file says of that file. Nothing is known of the file then.
    static Result<ZPackage> ReadSignature(int signature);
    /// As Read, for a file beside which there is a detached signature, open as `signature`. Reads all of the file.
    static Result<ZPackage> ReadDetached(int file, int signature, const StopQuestion& isStopped = {});

    /// Reads the payload and compares its digest: for format 2, where the signature covers the digest only.
    ZVerdict CheckPayload(int file, const StopQuestion& isStopped = {}) const;
};
