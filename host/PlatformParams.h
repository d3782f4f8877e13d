#pragma once

#include "ZCoreConfigs/ZConfig.h"

/// The plain members of the graph file's section "platform".
class ZPlatformParams : public ZConfig {
    Z_MESSAGE(ZPlatformParams, ZConfig)
public:
    ZString m_Eeprom;
    std::uint32_t m_CommandTimeoutSeconds = 900;
    bool m_bTransientUnits = false;

    Z_FIELDS(Z_FIELD(m_Eeprom).Path().OrEmpty().Means(
                 "The identity EEPROM as the kernel presents it, in TlvInfo layout. Empty: there is none.",
                 "\"/sys/bus/i2c/devices/0-0050/eeprom\""),
             Z_FIELD(m_CommandTimeoutSeconds).In(1, 86'400).Means("How long a command may run before it is ended."),
             Z_FIELD(m_bTransientUnits)
                 .Means("Whether checks and installs run as units of their own of the service manager, with limits of "
                        "theirs, where there is one. For a host that is a confined service itself."))
};

/// An identity that stands in for the EEPROM's.
class ZIdentityParams : public ZConfig {
    Z_MESSAGE(ZIdentityParams, ZConfig)
public:
    ZString m_Model;
    ZString m_SerialNumber;
    ZString m_Board;

    Z_FIELDS(Z_FIELD(m_Model).Means("", "\"KiteQM\""), Z_FIELD(m_SerialNumber).Means("", "\"SN1\""),
             Z_FIELD(m_Board).Means("", "\"verdin-imx8mm\""))
};
