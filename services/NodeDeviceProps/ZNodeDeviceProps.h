#pragma once

#include "NodeBase/ZNode.h"
#include "ZMessages/Messages.h"

class ZNodeDevicePropsCfg : public ZConfig {
    Z_MESSAGE(ZNodeDevicePropsCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZDeviceType m_DeviceType = DEVICE_CART;

    Z_FIELDS(Z_FIELD(m_DeviceType).Means("Which part of the instrument this graph runs on: host device or accessory."))
};

/// Answers "deviceProps" with the device's identity, as it is at the time of the question.
class ZNodeDeviceProps : public ZNode {
    Z_CLASS(ZNodeDeviceProps, ZNode)
public:
    explicit ZNodeDeviceProps(const ZString& name);
    /// Without a record the device is a host device (DEVICE_CART). False for a record of another class.
    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;

private:
    bool OnDeviceProps(const std::shared_ptr<ZMessage>& request);
    void ReadIdentity(ZDevicePropertiesMsg& properties) const;

    ZDeviceType m_deviceType = DEVICE_CART;
};
