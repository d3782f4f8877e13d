#pragma once

#include <string>
#include <vector>

#include "ZShared/ZError.h"

namespace gateway {

using FileContent = std::vector<char>;

/// The content of a regular file of at most 1 MiB. An error names the file.
ZResult<FileContent> ReadSmallFile(const std::string& path);
/// As above, of a file that belongs to this process's user or to root, and that nobody else may use. Whoever reads it
/// wipes the text when it is done with.
ZResult<FileContent> ReadSecretFile(const std::string& path);

}  // namespace gateway
