#pragma once

#include "ZMessages/Messages.h"

// Whose packages this device takes, and how that changes.

/// Order "applytrust": follow a chain of trust documents. Answered with a ZGenericResponseMsg.
class ZTrustChainMsg : public ZMessage {
    Z_MESSAGE(ZTrustChainMsg, ZMessage)
public:
    ZString m_Chain;  ///< what a file "arbor-trust.json" holds

    Z_FIELDS(Z_FIELD(m_Chain))
};
Z_REGISTER(ZTrustChainMsg)

/// A key of a trust document.
class ZTrustKeyMsg : public ZMessage {
    Z_MESSAGE(ZTrustKeyMsg, ZMessage)
public:
    ZString m_Id;  ///< SHA-256 of its SubjectPublicKeyInfo, in hexadecimal
    ZString m_Name;
    ZVector<ZString> m_Roles;   ///< "trust", "release", "development"
    ZVector<ZString> m_Boards;  ///< that it may sign packages for; none: all

    Z_FIELDS(Z_FIELD(m_Id), Z_FIELD(m_Name), Z_FIELD(m_Roles), Z_FIELD(m_Boards))
};
Z_REGISTER(ZTrustKeyMsg)

/// Answer of "trust": whose packages may run on this device. Asking leaves no log line.
class ZTrustMsg : public ZMessage {
    Z_MESSAGE(ZTrustMsg, ZMessage)
public:
    ZString m_TrustedSigners;    ///< the folder that says so; empty: everybody's packages run
    ZString m_Problem;           ///< what is in the way of that, as a sentence; empty: nothing is known to be
    std::uint32_t m_Number = 0;  ///< of the trust document in force; 0: none, the folder's certificates decide
    ZString m_Expires;           ///< its date, for people; may be empty
    std::uint32_t m_SecurityFloor = 0;
    bool m_bDevelopment = false;         ///< whether packages that development keys signed are taken
    std::uint32_t m_TrustThreshold = 0;  ///< so many keys with that role have to sign
    std::uint32_t m_ReleaseThreshold = 0;
    std::uint32_t m_DevelopmentThreshold = 0;
    ZVector<std::shared_ptr<ZTrustKeyMsg>> m_Keys;
    ZVector<ZString> m_Revoked;  ///< digests of packages that are not taken any more

    Z_FIELDS(Z_FIELD(m_TrustedSigners), Z_FIELD(m_Problem), Z_FIELD(m_Number), Z_FIELD(m_Expires),
             Z_FIELD(m_SecurityFloor), Z_FIELD(m_bDevelopment), Z_FIELD(m_TrustThreshold), Z_FIELD(m_ReleaseThreshold),
             Z_FIELD(m_DevelopmentThreshold), Z_FIELD(m_Keys), Z_FIELD(m_Revoked))
};
Z_REGISTER(ZTrustMsg)
