#pragma once

#include <vector>

#include "ZCoreConfigs/ZConfig.h"

/// Compares a record's values with the rules of their rows, and then with each other, after replacing the variables in
/// its paths, which have their normal form afterwards and no slash at their end. A record without errors is not looked
/// at again. Uses the record's environment; without one a dollar sign is one.
std::vector<ZSettingError> CheckSettings(ZConfig& record);
