#pragma once

#include <vector>

#include "SafePath.h"
#include "ZMessages/Messages.h"

/// How much of a file one message carries at most, in bytes; a multiple of 3, so that base64 needs no padding.
inline constexpr std::uint32_t kMostOfOnePart = ZFileWriteMsg::kChunkBytes;

/// Reads `length` bytes from `position` on, at most kMostOfOnePart, into `bytes`, whose memory is used again: fewer at
/// the file's end. `size` becomes the whole file's. An error when it is no regular file or can't be read.
FileError ReadFilePart(const FilePlace& place, std::uint64_t position, std::uint32_t length, std::vector<char>& bytes,
                       std::uint64_t& size);
