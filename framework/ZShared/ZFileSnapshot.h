#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"

/// Which bytes of a file a snapshot holds.
struct ZSnapshotSize {
    std::size_t begin = 0;  ///< so many at its beginning
    std::size_t end = 0;    ///< and so many at its end
};

/// A copy in memory of the beginning and the end of the file, which nobody else can change: a file of the same size,
/// with zeros in between. The last part of `path` is not followed where it is a link. An error when the file is none
/// that holds bytes, or can't be read within `limit`; a drive that does not answer keeps only a child process waiting.
ZResult<ZFileDescriptor> SnapshotFile(const std::string& path, ZSnapshotSize size, std::chrono::milliseconds limit);

/// A file in memory that holds `bytes` and that nobody can change any more.
ZResult<ZFileDescriptor> SealedFile(std::string_view bytes);
