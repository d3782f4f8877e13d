#pragma once

#include "ZMessages/Messages.h"

// Jobs: what each is, how far it is, how it ended, and what is known beside them.

/// A job as it stands: published on "operation" at every change, and an entry of the answer to "operations".
class ZOperationMsg : public ZMessage {
    Z_MESSAGE(ZOperationMsg, ZMessage)
public:
    ZString m_Id;      ///< 16 hexadecimal digits, never used again
    ZString m_Parent;  ///< the job that this one is a part of; empty: none
    ZOperationKind m_Kind = ZOperationKind::Check;
    ZOperationState m_State = ZOperationState::Queued;
    ZString m_Version;  ///< empty: none, or not known yet
    ZString m_File;     ///< the package file, the drive of a scan, the name of an upload
    ZString m_Device;   ///< the accessory's serial number; empty: this device
    ZString m_Asker;    ///< "user alice", "token ci", "device PM-B", "drive /media/usb1"; empty: the device itself
    ZString m_Node;     ///< the node that does it
    ZString m_Header;
    ZString m_Message;
    std::int32_t m_Percent = 0;
    ZString m_Reason;  ///< why it ended as it did, in a sentence; empty when it succeeded
    ZFrameworkErrorCodes::ZErrorCode m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;
    // Milliseconds since 1970 by the device's clock, which may be wrong; 0: not yet.
    std::int64_t m_CreatedAt = 0;
    std::int64_t m_StartedAt = 0;
    std::int64_t m_EndedAt = 0;
    ZString m_BootId;  ///< the kernel's, of the boot in which it was begun
    // Milliseconds by a clock that nobody sets; 0: not yet, or not known.
    std::int64_t m_StartedSinceBoot = 0;  ///< when it started, from that boot on
    std::int64_t m_Took = 0;              ///< how long it ran, or has run when this was told
    // Its process, when it has one that outlives the host; the start tells it from a later one of the same number.
    std::int32_t m_ProcessId = 0;
    std::uint64_t m_ProcessStart = 0;  ///< clock ticks after the boot, field 22 of /proc/PID/stat

    bool IsOpen() const { return m_State == ZOperationState::Queued || m_State == ZOperationState::Running; }

    Z_FIELDS(Z_FIELD(m_Id), Z_FIELD(m_Parent), Z_FIELD(m_Kind), Z_FIELD(m_State), Z_FIELD(m_Version), Z_FIELD(m_File),
             Z_FIELD(m_Device), Z_FIELD(m_Asker), Z_FIELD(m_Node), Z_FIELD(m_Header), Z_FIELD(m_Message),
             Z_FIELD(m_Percent), Z_FIELD(m_Reason), Z_FIELD(m_ErrorCode), Z_FIELD(m_CreatedAt), Z_FIELD(m_StartedAt),
             Z_FIELD(m_EndedAt), Z_FIELD(m_BootId), Z_FIELD(m_StartedSinceBoot), Z_FIELD(m_Took), Z_FIELD(m_ProcessId),
             Z_FIELD(m_ProcessStart))
};
Z_REGISTER(ZOperationMsg)

/// Request "operations". Every field that is set narrows the choice.
class ZOperationsRequestMsg : public ZMessage {
    Z_MESSAGE(ZOperationsRequestMsg, ZMessage)
public:
    ZString m_Id;               ///< the whole of it, or a beginning that fits one only
    ZString m_Kind;             ///< name of a ZOperationKind; empty: all
    ZString m_State;            ///< name of a ZOperationState, or "Open": those that have not ended; empty: all
    ZString m_Node;             ///< the node that does them; empty: all
    std::int64_t m_Since = 0;   ///< begun then or later, in milliseconds since 1970
    std::uint32_t m_Limit = 0;  ///< at most so many, 1,000 at most; 0: 100
    ZString m_Before;           ///< the `next` of the page before

    Z_FIELDS(Z_FIELD(m_Id), Z_FIELD(m_Kind), Z_FIELD(m_State), Z_FIELD(m_Node), Z_FIELD(m_Since), Z_FIELD(m_Limit),
             Z_FIELD(m_Before))
};
Z_REGISTER(ZOperationsRequestMsg)

/// Its answer: the newest first. An id that is unknown, or a beginning of several ones, is no success, with the reason.
class ZOperationsMsg : public ZGenericResponseMsg {
    Z_MESSAGE(ZOperationsMsg, ZGenericResponseMsg)
public:
    ZVector<std::shared_ptr<ZOperationMsg>> m_Operations;
    ZString m_Next;     ///< what to ask for as `before` to get the next page; empty: this was the last
    ZString m_Problem;  ///< why nothing is written to the disk at present, so that a restart loses it; empty: it is

    Z_FIELDS(Z_FIELD(m_Operations), Z_FIELD(m_Next), Z_FIELD(m_Problem))
};
Z_REGISTER(ZOperationsMsg)

/// Notification "cancel": the node that does the job ends it when that is possible. How it ends is told by the job.
class ZCancelMsg : public ZMessage {
    Z_MESSAGE(ZCancelMsg, ZMessage)
public:
    ZString m_Id;

    Z_FIELDS(Z_FIELD(m_Id))
};
Z_REGISTER(ZCancelMsg)

/// Request "forget": removes a file that was uploaded.
class ZForgetMsg : public ZMessage {
    Z_MESSAGE(ZForgetMsg, ZMessage)
public:
    ZString m_File;  ///< its name in the updates folder, or its path there

    Z_FIELDS(Z_FIELD(m_File))
};
Z_REGISTER(ZForgetMsg)

/// A package file as far as it is known.
class ZPackageInfoMsg : public ZMessage {
    Z_MESSAGE(ZPackageInfoMsg, ZMessage)
public:
    ZString m_Version;
    ZString m_File;
    ZString m_Source;          ///< where it lies: the drive, "upload", "archive"
    ZString m_Relation;        ///< to the installed version: "newer", "same", "older"; empty: one of them is unknown
    ZString m_Board;           ///< the board that it was built for; empty: not known
    std::int64_t m_Size = -1;  ///< in bytes; negative: not known
    ZString m_Signer;          ///< who signed it, as the certificate says; empty: not known
    // Of a file that was refused:
    ZString m_Reason;
    ZFrameworkErrorCodes::ZErrorCode m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_NONE;  ///< none: nothing was found out
    std::int64_t m_CheckedAt = 0;                                                       ///< milliseconds since 1970

    Z_FIELDS(Z_FIELD(m_Version), Z_FIELD(m_File), Z_FIELD(m_Source), Z_FIELD(m_Relation), Z_FIELD(m_Board),
             Z_FIELD(m_Size), Z_FIELD(m_Signer), Z_FIELD(m_Reason), Z_FIELD(m_ErrorCode), Z_FIELD(m_CheckedAt))
};
Z_REGISTER(ZPackageInfoMsg)

/// Answer of "inventory": which versions this device runs, starts next, and could install. Asking leaves no log line.
class ZInventoryMsg : public ZMessage {
    Z_MESSAGE(ZInventoryMsg, ZMessage)
public:
    ZString m_InstalledVersion;                            ///< of the system that runs; as its manifest tells it
    ZString m_RunningSlot;                                 ///< as the boot told it; empty: unknown
    ZString m_NextSlot;                                    ///< what the device starts from next; empty: unknown
    ZString m_NextVersion;                                 ///< the version in there; empty: unknown
    ZVector<std::shared_ptr<ZPackageInfoMsg>> m_Packages;  ///< the newest first; of one version, what would be
                                                           ///< installed first
    ZVector<std::shared_ptr<ZPackageInfoMsg>> m_Refused;   ///< of files that were refused, the newest 64
    ZVector<std::shared_ptr<ZPackageInfoMsg>> m_Archive;
    ZString m_TrustedSigners;           ///< folder of those whose packages may run; empty: everybody's run
    std::uint32_t m_TrustDocument = 0;  ///< number of the one in force; 0: none
    ZString m_TrustProblem;             ///< what is in the way of that, as a sentence; empty: nothing is known to be
    ZString m_UpdatesFolder;
    std::int64_t m_UpdatesFree = -1;  ///< bytes for uploads; negative: not known
    std::int64_t m_ArchiveFree = -1;  ///< bytes where the archive lies

    Z_FIELDS(Z_FIELD(m_InstalledVersion), Z_FIELD(m_RunningSlot), Z_FIELD(m_NextSlot), Z_FIELD(m_NextVersion),
             Z_FIELD(m_Packages), Z_FIELD(m_Refused), Z_FIELD(m_Archive), Z_FIELD(m_TrustedSigners),
             Z_FIELD(m_TrustDocument), Z_FIELD(m_TrustProblem), Z_FIELD(m_UpdatesFolder), Z_FIELD(m_UpdatesFree),
             Z_FIELD(m_ArchiveFree))
};
Z_REGISTER(ZInventoryMsg)

/// What an installer leaves of its work, in the file "last.json" beside the slots.
class ZInstallRecordMsg : public ZMessage {
    Z_MESSAGE(ZInstallRecordMsg, ZMessage)
public:
    ZString m_Operation;  ///< the job's id, as it was handed to the installer; empty: none was
    ZString m_Version;
    ZString m_Outcome;  ///< "running", "succeeded", "failed", "cancelled"
    ZString m_Reason;
    ZString m_Slot;  ///< the one that was written
    ZString m_BootId;
    std::int32_t m_ProcessId = 0;
    std::int64_t m_StartedAt = 0;
    std::int64_t m_EndedAt = 0;

    Z_FIELDS(Z_FIELD(m_Operation), Z_FIELD(m_Version), Z_FIELD(m_Outcome), Z_FIELD(m_Reason), Z_FIELD(m_Slot),
             Z_FIELD(m_BootId), Z_FIELD(m_ProcessId), Z_FIELD(m_StartedAt), Z_FIELD(m_EndedAt))
};
Z_REGISTER(ZInstallRecordMsg)
