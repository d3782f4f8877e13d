#pragma once

#include <filesystem>
#include <vector>

#include "FileError.h"
#include "ZShared/ZFileDescriptor.h"

/// Where a file is or will be: a name in a folder that is held open. Used with the calls that take a folder's
/// descriptor, it stays the place that was checked, whatever is moved, or put there as a link, meanwhile.
struct FilePlace {
    ZFileDescriptor folder;
    std::string name;
    std::filesystem::path path;  ///< without links and "..": the same for all spellings of one place
};

enum class MissingFolders { Refused, Made };

/// Finds the place that the absolute `path` names, once links and ".." are resolved, below one of `roots` (absolute, no
/// slash at the end). An error when it is elsewhere, when the name can't be a file's, and when something that is no
/// regular file is there. Folders between root and file are made when wanted; the root itself never is.
FileError FindPlace(const std::vector<std::filesystem::path>& roots, std::string_view path, MissingFolders missing,
                    FilePlace& place);

/// Names of files that are still being written: hidden, and no package's.
std::string NewTemporaryName();
bool IsTemporaryName(std::string_view name);
