#pragma once

#include <memory>

#include "ZBoot/ZBootControl.h"

/// systemd-boot: a slot is an entry in the folder that the settings name (`entries`), arbor-NUMBER-SLOT.conf, of a
/// version on trial arbor-NUMBER-SLOT+LEFT-DONE.conf. The loader starts the one with the greatest number that has
/// starts left, and counts them down in the file's name.
std::unique_ptr<ZBootControl> MakeLoaderEntries(const ZBootSettings& settings);
