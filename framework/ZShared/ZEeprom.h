#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "ZShared/ZPlatform.h"

/// Reads the identity from an EEPROM image in TlvInfo layout (the Open Compute Project's ONIE EEPROM format: the
/// signature "TlvInfo", version 1, a big-endian total length, then type-length-value fields, the last of them a
/// CRC-32). Fields used: 0x21 product name (the model), 0x23 serial number, 0x28 platform name (the board). Nothing is
/// returned for an image that is cut short, has another layout or a wrong checksum; `error` then says which.
std::optional<ZIdentity> ParseTlvInfo(std::span<const std::uint8_t> image, std::string& error);

/// As ParseTlvInfo, from a file; at most the layout's 2 KiB are read.
std::optional<ZIdentity> ReadIdentityFromEeprom(const std::string& path, std::string& error);
