#pragma once

#include <string_view>

#include "ZTrust/ZPackage.h"

/// The JSON texts in a package and in a detached signature.
namespace ztrust {

constexpr std::size_t kStubSize = 4096;
constexpr std::size_t kLargestHeader = std::size_t{64} * 1024;  // with its line feed
constexpr std::size_t kLargestCode = std::size_t{4} * 1024 * 1024;
constexpr std::size_t kLargestTrailer = std::size_t{64} * 1024;
constexpr std::size_t kLargestSignature = 2048;  // RSA of 16,384 bits, the largest key that OpenSSL takes

struct Header {
    ZPackage package;
    ZPackageSection code;
};

/// What the header line, without its line feed, says.
ZPackage::Result<Header> ReadHeader(std::string_view line);
/// What the first line of a detached signature says: `payload` is the file.
ZPackage::Result<ZPackage> ReadDescription(std::string_view line);
/// The signatures in a trailer.
ZPackage::Result<std::vector<ZPackageSignature>> ReadSignatures(std::string_view text);

}  // namespace ztrust
