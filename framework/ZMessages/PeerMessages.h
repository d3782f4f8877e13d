#pragma once

#include "ZMessages/Messages.h"

// What a graph says about other devices, and to them.

/// Another device as this one knows it: an entry of the answer to "peers", and the notification "peerupdate", sent
/// whenever one comes or goes. What the device told about itself stays known while it is away.
class ZPeerMsg : public ZMessage {
    Z_MESSAGE(ZPeerMsg, ZMessage)
public:
    ZString m_Name;       ///< what its key was pinned as; empty when it is not pinned
    ZString m_PublicKey;  ///< 64 hexadecimal digits
    ZString m_Address;    ///< where this device calls it, as "tcp://10.77.0.1:5700"; empty: it calls
    bool m_bPinned = false;
    bool m_bConnected = false;
    ZDeviceType m_DeviceType = DEVICE_CART;
    ZDeviceModel m_DeviceModel = ZDeviceModel::KiteQM;
    ZString m_SerialNumber;  ///< its pin's; empty until it has been connected once
    ZString m_Board;
    ZString m_Version;
    // The host's verdict about this device's software; set on the accessory that asked for it.
    ZString m_TargetVersion;  ///< empty: it was not asked, or did not say
    bool m_bCompatible = false;
    bool m_bRequiresUpdate = false;

    Z_FIELDS(Z_FIELD(m_Name), Z_FIELD(m_PublicKey), Z_FIELD(m_Address), Z_FIELD(m_bPinned), Z_FIELD(m_bConnected),
             Z_FIELD(m_DeviceType), Z_FIELD(m_DeviceModel), Z_FIELD(m_SerialNumber), Z_FIELD(m_Board),
             Z_FIELD(m_Version), Z_FIELD(m_TargetVersion), Z_FIELD(m_bCompatible), Z_FIELD(m_bRequiresUpdate))
};
Z_REGISTER(ZPeerMsg)

/// Answer of "peers" and of "pair".
class ZPeersMsg : public ZGenericResponseMsg {
    Z_MESSAGE(ZPeersMsg, ZGenericResponseMsg)
public:
    ZString m_PublicKey;  ///< this device's own
    /// Pinned ones first, in the order of pinning; then those that were refused lately because nobody pinned them.
    ZVector<std::shared_ptr<ZPeerMsg>> m_Peers;

    Z_FIELDS(Z_FIELD(m_PublicKey), Z_FIELD(m_Peers))
};
Z_REGISTER(ZPeersMsg)

/// Request "pair": pins a device's key, so that it is let in, or takes the pin away.
class ZPairMsg : public ZMessage {
    Z_MESSAGE(ZPairMsg, ZMessage)
public:
    ZString m_PublicKey;
    ZString m_Name;     ///< for people; empty: the beginning of the key
    ZString m_Address;  ///< call it there; empty: it calls
    bool m_bRemove = false;

    Z_FIELDS(Z_FIELD(m_PublicKey), Z_FIELD(m_Name), Z_FIELD(m_Address), Z_FIELD(m_bRemove))
};
Z_REGISTER(ZPairMsg)

/// Hands a message to another device, on "forward". The answer to it, the device's own or a ZGenericResponseMsg that
/// says why there is none, goes to whoever waits for an answer to `m_pMessage`. Only within one graph.
class ZForwardMsg : public ZMessage {
    Z_MESSAGE(ZForwardMsg, ZMessage)
public:
    ZDeviceModel m_DeviceModel = ZDeviceModel::KiteQM;
    ZString m_SerialNumber;
    ZString m_Keyword;  ///< of type DeviceRequest, at the other device
    std::shared_ptr<ZMessage> m_pMessage;

    bool IsCloneable() const override { return false; }

    Z_FIELDS(Z_FIELD(m_DeviceModel), Z_FIELD(m_SerialNumber), Z_FIELD(m_Keyword))
};
Z_REGISTER(ZForwardMsg)
