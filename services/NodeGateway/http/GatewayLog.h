#pragma once

#include "ZShared/ZLog.h"

namespace gateway {

/// The log of the parts that are no node themselves.
constexpr ZLogger Log() {
    return ZLogger("ZNodeGateway");
}

}  // namespace gateway
