#pragma once

#include <string>
#include <vector>

#include "ZCoreConfigs/ZConfig.h"

/// What is wrong with one setting: its key, and a text that names key, value and what is wanted.
struct ZSettingError {
    std::string key;
    std::string text;
};

/// Compares a record's values with the rules of their rows, after replacing the variables in its paths, which have
/// their normal form afterwards and no slash at their end. A record without errors is not looked at again. Uses the
/// record's environment; without one a dollar sign is one.
std::vector<ZSettingError> CheckSettings(ZConfig& record);
