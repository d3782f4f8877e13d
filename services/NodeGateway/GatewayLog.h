#pragma once

#include "ZShared/ZLog.h"

/// A log line of a part that is no node itself, on the gateway's channel. Needs `kLogSource` in scope.
#define GATEWAY_LOG(level, ...) \
    ZLog::Instance().Log((level), "ZNodeGateway", kLogSource, __func__, __LINE__, __VA_ARGS__)
