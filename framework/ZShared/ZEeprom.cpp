#include "ZShared/ZEeprom.h"

#include <boost/crc.hpp>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace {

constexpr char kSignature[8] = "TlvInfo";  // with its NUL
constexpr std::size_t kHeader = 11;        // signature, version, total length
constexpr std::size_t kMostBytes = 2048;
constexpr std::uint8_t kProductName = 0x21;
constexpr std::uint8_t kSerialNumber = 0x23;
constexpr std::uint8_t kPlatformName = 0x28;
constexpr std::uint8_t kChecksum = 0xFE;

std::uint32_t BigEndian(std::span<const std::uint8_t> bytes) {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = value << 8 | byte;
    }
    return value;
}

bool ChecksumIsRight(std::span<const std::uint8_t> covered, std::span<const std::uint8_t> value) {
    boost::crc_32_type crc;
    crc.process_bytes(covered.data(), covered.size());
    return value.size() == 4 && crc.checksum() == BigEndian(value);
}

}  // namespace

ZResult<ZIdentity> ParseTlvInfo(std::span<const std::uint8_t> image) {
    if (image.size() < kHeader || std::memcmp(image.data(), kSignature, sizeof kSignature) != 0 || image[8] != 1) {
        return ZError("no TlvInfo header of version 1");
    }
    const std::size_t end = kHeader + BigEndian(image.subspan(9, 2));
    if (end > image.size()) {
        return ZError("the image is shorter than its header says");
    }
    ZIdentity identity;
    for (std::size_t at = kHeader; at + 2 <= end;) {
        const std::uint8_t type = image[at];
        const std::size_t length = image[at + 1];
        if (at + 2 + length > end) {
            return ZError("a field reaches past the end");
        }
        const auto value = image.subspan(at + 2, length);
        const std::string text(value.begin(), value.end());
        if (type == kProductName) {
            identity.model = text;
        } else if (type == kSerialNumber) {
            identity.serialNumber = text;
        } else if (type == kPlatformName) {
            identity.board = text;
        } else if (type == kChecksum) {
            if (ChecksumIsRight(image.first(at + 2), value)) {
                return identity;
            }
            return ZError("the checksum is wrong");
        }
        at += 2 + length;
    }
    return ZError("there is no checksum");
}

ZResult<ZIdentity> ReadIdentityFromEeprom(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return ZError::OfSystem(path, errno);
    }
    std::vector<std::uint8_t> image(kMostBytes);
    file.read(reinterpret_cast<char*>(image.data()), static_cast<std::streamsize>(image.size()));
    image.resize(static_cast<std::size_t>(file.gcount()));
    auto identity = ParseTlvInfo(image);
    return identity ? identity : identity.error().In(path);
}
