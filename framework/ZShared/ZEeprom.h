#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "ZShared/ZError.h"
#include "ZShared/ZPlatform.h"

/// Reads the identity from an EEPROM image in TlvInfo layout (the Open Compute Project's ONIE EEPROM format: the
/// signature "TlvInfo", version 1, a big-endian total length, then type-length-value fields, the last of them a
/// CRC-32). Fields used: 0x21 product name (the model), 0x23 serial number, 0x28 platform name (the board). An image
/// that is cut short, has another layout or a wrong checksum is an error, which says which.
ZResult<ZIdentity> ParseTlvInfo(std::span<const std::uint8_t> image);

/// As ParseTlvInfo, from a file; at most the layout's 2 KiB are read.
ZResult<ZIdentity> ReadIdentityFromEeprom(const std::string& path);
