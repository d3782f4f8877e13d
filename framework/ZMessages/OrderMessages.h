#pragma once

#include "ZMessages/Messages.h"

// Orders: what people had this device do, or were refused.

/// Order "scan": look at this package file now, or at all that is on this drive.
class ZScanMsg : public ZMessage {
    Z_MESSAGE(ZScanMsg, ZMessage)
public:
    ZString m_Path;  ///< as this device sees it: below a drive or the updates folder, or a drive's mount point

    Z_FIELDS(Z_FIELD(m_Path))
};
Z_REGISTER(ZScanMsg)

/// One order that a person gave: published on "order", and an entry of the answer to "orders". One of the same id
/// takes the place of the one before.
class ZOrderMsg : public ZMessage {
    Z_MESSAGE(ZOrderMsg, ZMessage)
public:
    ZString m_Id;
    // Milliseconds since 1970 by the device's clock, which may be wrong.
    std::int64_t m_Time = 0;
    std::int64_t m_LastTime = 0;   ///< of the last one that was counted
    std::int64_t m_Count = 1;      ///< how often the same was ordered
    ZString m_User;                ///< a name; of a user whom the system does not know, the number; "token NAME"
    std::int64_t m_UserId = -1;    ///< as the kernel told it when the process connected; -1: of a token
    std::int32_t m_ProcessId = 0;  ///< likewise; 0: of a token
    ZString m_Program;             ///< what that process called itself; "unknown" when it has gone; a token's address
    ZString m_Keyword;             ///< empty: several ones, which are only counted
    ZString m_Subject;             ///< version, file, device, job
    bool m_bAccepted = false;
    ZString m_OperationId;  ///< the job that was begun; empty: none
    ZString m_Reason;       ///< why it was refused

    Z_FIELDS(Z_FIELD(m_Id), Z_FIELD(m_Time), Z_FIELD(m_LastTime), Z_FIELD(m_Count), Z_FIELD(m_User), Z_FIELD(m_UserId),
             Z_FIELD(m_ProcessId), Z_FIELD(m_Program), Z_FIELD(m_Keyword), Z_FIELD(m_Subject), Z_FIELD(m_bAccepted),
             Z_FIELD(m_OperationId), Z_FIELD(m_Reason))
};
Z_REGISTER(ZOrderMsg)

/// Request "orders". Every field that is set narrows the choice.
class ZOrdersRequestMsg : public ZMessage {
    Z_MESSAGE(ZOrdersRequestMsg, ZMessage)
public:
    ZString m_User;             ///< a name, or a number; empty: all
    ZString m_Result;           ///< "accepted" or "refused"; empty: both
    std::int64_t m_Since = 0;   ///< given then or later, in milliseconds since 1970
    std::uint32_t m_Limit = 0;  ///< at most so many, 1,000 at most; 0: 100
    ZString m_Before;           ///< the `next` of the page before

    Z_FIELDS(Z_FIELD(m_User), Z_FIELD(m_Result), Z_FIELD(m_Since), Z_FIELD(m_Limit), Z_FIELD(m_Before))
};
Z_REGISTER(ZOrdersRequestMsg)

/// Its answer: the newest first.
class ZOrdersMsg : public ZGenericResponseMsg {
    Z_MESSAGE(ZOrdersMsg, ZGenericResponseMsg)
public:
    ZVector<std::shared_ptr<ZOrderMsg>> m_Orders;
    ZString m_Next;  ///< what to ask for as `before` to get the next page; empty: this was the last

    Z_FIELDS(Z_FIELD(m_Orders), Z_FIELD(m_Next))
};
Z_REGISTER(ZOrdersMsg)
