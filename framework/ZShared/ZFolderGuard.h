#pragma once

#include <filesystem>
#include <string_view>
#include <vector>

#include "ZShared/ZError.h"

/// Whether a text names a folder whose contents may be deleted at all, as far as its path tells: absolute, without
/// "..", and neither "/" nor a folder that belongs to the system (as /etc, /usr/lib, /var/lib, /home).
bool IsFolderOfItsOwn(std::string_view path);

/// Whether `path` is `folder` or lies below it, links followed as far as they exist, under whatever names: a file
/// system may be mounted twice.
bool LiesIn(const std::filesystem::path& path, const std::filesystem::path& folder);

/// Whether all that is in `folder` may be deleted, asked right before it is done. An error says why not: as above, also
/// after following links; something is mounted below, or something else than the folder's own file system is mounted
/// there, as far as that can be told (below /media, /run/media and /mnt, where drives are, and below a `mountPoint`,
/// anything is); or it is, holds or lies in one of `keep`. `mountPoint`, when not empty, is one that the folder must
/// lie below.
ZResult<void> MayBeEmptied(const std::filesystem::path& folder, const std::vector<std::filesystem::path>& keep,
                           const std::filesystem::path& mountPoint = {});
