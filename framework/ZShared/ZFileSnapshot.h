#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "ZShared/ZError.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZForkedChild.h"

/// Which bytes of a file a snapshot holds.
struct ZSnapshotSize {
    std::size_t begin = 0;  ///< so many at its beginning
    std::size_t end = 0;    ///< and so many at its end
};

/// A file as it was opened, whatever has become of its name since.
struct ZFileSnapshot {
    ZFileDescriptor copy;  ///< a file in memory of the same size: its beginning and its end, with zeros in between
    ZForkedChild keeper;   ///< has the file open, so that a drive that does not answer keeps nobody else waiting

    /// A path under which others may open the very file, as long as this lives.
    std::string Path() const;
};

/// Opens the file and copies its beginning and its end, within `limit`. Nobody else can change the copy. The last part
/// of `path` is not followed where it is a link. An error when the file is none that holds bytes.
ZResult<ZFileSnapshot> SnapshotFile(const std::string& path, ZSnapshotSize size, std::chrono::milliseconds limit);

/// Copies the whole file to a file in `folder` that has no name, and so is nobody else's and gone with the descriptor,
/// within `limit`. The copy may be read and executed. An error also when that would leave `folder` short of room.
ZResult<ZFileDescriptor> CopyWhole(const ZFileSnapshot& file, const std::string& folder,
                                   std::chrono::milliseconds limit);

/// A file in memory that holds `bytes` and that nobody can change any more.
ZResult<ZFileDescriptor> SealedFile(std::string_view bytes);
