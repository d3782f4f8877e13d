#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>

#include "ZCoreConfigs/ZEnvironment.h"

/// A setting that can't be used. Its text names the key, the value and what is wanted:
/// "idleSeconds" is 0; it must be a number from 1 to 3600.
class ZBadSetting : public std::runtime_error {
public:
    ZBadSetting(const char* key, const ZString& value, const std::string& wanted);
    ZBadSetting(const char* key, std::uint32_t value, const std::string& wanted);
};

/// Throws ZBadSetting unless `value` is one of `least` to `most`.
void CheckRange(const char* key, std::uint32_t value, std::uint32_t least, std::uint32_t most);

/// The path with the environment's variables replaced, in its normal form and without a slash at its end. Throws
/// ZBadSetting when it is not absolute then. Without an environment, a dollar sign is one.
std::filesystem::path AbsolutePath(const char* key, const ZString& value, const ZEnvironment* environment);
