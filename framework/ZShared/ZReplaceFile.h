#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string_view>

#include "ZShared/ZError.h"

/// Puts a file with these bytes in the place of what is there. After a power cut there is the old file or the new one,
/// never a part of it. On success the new one is in its place. It has exactly this `mode` from its first moment on,
/// where the file system knows modes; without one that of other new files. One thread per file.
ZResult<void> ReplaceFile(const std::filesystem::path& file, std::string_view bytes, std::optional<mode_t> mode = {});
