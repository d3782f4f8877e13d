#pragma once

#include <cstdint>

// Values are fixed; enumerators' names travel on the wire and stand in log lines.

enum ZDeviceType : std::uint8_t {
    DEVICE_CART = 0,  ///< host device
    DEVICE_PALM = 1,  ///< accessory
};

enum class ZDeviceModel : std::int32_t {
    KiteQM = 0,
    KiteLX = 1,
    QMA = 2,
    QMB = 3,
    QMC = 4,
    QMD = 5,
    QMDAccessory = 6,
    QMSim = 7,
};

class ZFrameworkErrorCodes {
public:
    enum ZErrorCode : std::int32_t {
        ERRCODE_NONE = 0,
        ERRCODE_BUSY = 1,
        ERRCODE_SYSUPDATE_TARGET_DEVICE_BATTERY_TOO_LOW = 2,
        ERRCODE_SYSUPDATE_HOST_DEVICE_BATTERY_TOO_LOW = 3,
        ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED = 4,
        ERRCODE_ACCESSORY_PALM_REJECTED_VER_NEWER_THAN_CART = 5,
        ERRCODE_SYSUPDATE_IN_SHUTDOWN = 6,
        ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE = 7,
        ERRCODE_NOT_FOUND = 9,
        ERRCODE_NOT_SUPPORTED = 10,
        ERRCODE_INVALID_REQUEST = 11,
        ERRCODE_UNSUPPORTED_WAVELOCK_FREQUENCY = 12,
        ERRCODE_DEVICE_NOT_CONNECTED = 13,
    };
};

/// Where an edge meets a node, for graph tools.
enum class ZEdgeAnchorType : std::int32_t { ZUNDEFINED = 0, ZDYNAMIC = 1, ZFIXED = 2 };
enum class ZEdgeAnchorPosition : std::int32_t { ZUNDEFINED = 0, ZLEFT = 1, ZTOP = 2, ZRIGHT = 3, ZBOTTOM = 4 };
