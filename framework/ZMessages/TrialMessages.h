#pragma once

#include "ZMessages/Messages.h"

// Which version runs, whether it has proved itself, and what became of those that did not.

/// A slot and what stands in it.
class ZSlotMsg : public ZMessage {
    Z_MESSAGE(ZSlotMsg, ZMessage)
public:
    ZString m_Slot;
    ZString m_Version;
    ZString m_Digest;  ///< SHA-256 of its image, in hexadecimal; empty: not known
    bool m_bRunning = false;
    bool m_bNext = false;       ///< the device starts from it next
    bool m_bConfirmed = false;  ///< it is what the device goes back to

    Z_FIELDS(Z_FIELD(m_Slot), Z_FIELD(m_Version), Z_FIELD(m_Digest), Z_FIELD(m_bRunning), Z_FIELD(m_bNext),
             Z_FIELD(m_bConfirmed))
};
Z_REGISTER(ZSlotMsg)

/// A health check as it went the last time.
class ZHealthMsg : public ZMessage {
    Z_MESSAGE(ZHealthMsg, ZMessage)
public:
    ZString m_Name;
    bool m_bMust = false;  ///< without it no version proves itself; else it is only told
    bool m_bPassed = false;
    ZString m_Reason;  ///< why it did not pass, as a sentence; empty: it did, or was not asked yet

    Z_FIELDS(Z_FIELD(m_Name), Z_FIELD(m_bMust), Z_FIELD(m_bPassed), Z_FIELD(m_Reason))
};
Z_REGISTER(ZHealthMsg)

/// A version that was taken back.
class ZTakenBackMsg : public ZMessage {
    Z_MESSAGE(ZTakenBackMsg, ZMessage)
public:
    ZString m_Version;
    ZString m_Digest;
    ZString m_Reason;
    std::int64_t m_At = 0;  ///< milliseconds since 1970

    Z_FIELDS(Z_FIELD(m_Version), Z_FIELD(m_Digest), Z_FIELD(m_Reason), Z_FIELD(m_At))
};
Z_REGISTER(ZTakenBackMsg)

/// How often something happened in trials, since the device's state of trials was begun.
class ZTrialCountMsg : public ZMessage {
    Z_MESSAGE(ZTrialCountMsg, ZMessage)
public:
    ZString m_What;  ///< "begun", "confirmed"; or why a version was taken back: "said" (by a node or a person),
                     ///< "check", "late" (nothing told in time that it works), "starts" (all used up), "neverUp"
    std::uint64_t m_Count = 0;

    Z_FIELDS(Z_FIELD(m_What), Z_FIELD(m_Count))
};
Z_REGISTER(ZTrialCountMsg)

/// Answer of "slots", and notification "trial" at every change: where the version that runs stands on its way. Asking
/// leaves no log line.
class ZSlotsMsg : public ZMessage {
    Z_MESSAGE(ZSlotsMsg, ZMessage)
public:
    ZVector<std::shared_ptr<ZSlotMsg>> m_Slots;
    ZString m_State;    ///< "confirmed", "installed" (another version starts next), "trial", "reverting", "unknown"
    ZString m_Version;  ///< the one on its way; empty: none
    std::uint32_t m_Attempt = 0;   ///< its start, counted from 1
    std::uint32_t m_Attempts = 0;  ///< it has so many
    std::int64_t m_Since = 0;      ///< milliseconds since 1970, of its first start
    ZString m_Waiting;             ///< what is missing until it is confirmed, as a sentence
    ZVector<std::shared_ptr<ZHealthMsg>> m_Checks;
    // How the last trial ended.
    ZString m_LastVersion;  ///< empty: there was none yet
    ZString m_LastOutcome;  ///< "confirmed", "reverted"
    ZString m_LastReason;
    std::int64_t m_LastAt = 0;
    bool m_bLastAlike = false;                            ///< the version before failed in the same way
    ZVector<std::shared_ptr<ZTakenBackMsg>> m_TakenBack;  ///< not offered again until somebody allows it
    ZVector<std::shared_ptr<ZTrialCountMsg>> m_Counts;
    ZString m_Problem;  ///< what is in the way of knowing or doing all this, as a sentence; empty: nothing

    Z_FIELDS(Z_FIELD(m_Slots), Z_FIELD(m_State), Z_FIELD(m_Version), Z_FIELD(m_Attempt), Z_FIELD(m_Attempts),
             Z_FIELD(m_Since), Z_FIELD(m_Waiting), Z_FIELD(m_Checks), Z_FIELD(m_LastVersion), Z_FIELD(m_LastOutcome),
             Z_FIELD(m_LastReason), Z_FIELD(m_LastAt), Z_FIELD(m_bLastAlike), Z_FIELD(m_TakenBack), Z_FIELD(m_Counts),
             Z_FIELD(m_Problem))
};
Z_REGISTER(ZSlotsMsg)

/// Order "revert": go back to the confirmed version. Answered with a ZGenericResponseMsg, before the restart.
class ZRevertMsg : public ZMessage {
    Z_MESSAGE(ZRevertMsg, ZMessage)
public:
    ZString m_Reason;  ///< for the journal

    Z_FIELDS(Z_FIELD(m_Reason))
};
Z_REGISTER(ZRevertMsg)

/// Order "allow": offer a version again that was taken back. Answered with a ZGenericResponseMsg.
class ZAllowMsg : public ZMessage {
    Z_MESSAGE(ZAllowMsg, ZMessage)
public:
    ZString m_Version;

    Z_FIELDS(Z_FIELD(m_Version))
};
Z_REGISTER(ZAllowMsg)

/// Notification "veto" of a node: the version on trial does not work.
class ZVetoMsg : public ZMessage {
    Z_MESSAGE(ZVetoMsg, ZMessage)
public:
    ZString m_Reason;  ///< what does not work, as a sentence

    Z_FIELDS(Z_FIELD(m_Reason))
};
Z_REGISTER(ZVetoMsg)
