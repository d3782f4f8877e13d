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

/// The kinds of job that have an identity of their own.
enum class ZOperationKind : std::int32_t {
    Check = 0,     ///< of one package file
    Scan = 1,      ///< of a drive, or of a folder
    Install = 2,   ///< on this device
    Build = 3,     ///< of a package for an accessory's board
    Transfer = 4,  ///< of a package to an accessory
    RemoteInstall = 5,
    Upload = 6,
    Trust = 7,  ///< another trust document comes into force
    Trial = 8,  ///< a version that was installed proves itself, or the device goes back to the one before
};

/// Where a job stands. The last four are ends: nothing follows them.
enum class ZOperationState : std::int32_t {
    Queued = 0,
    Running = 1,
    Succeeded = 2,
    Failed = 3,
    Cancelled = 4,
    Lost = 5,  ///< its end was not seen, and nothing tells it
};
