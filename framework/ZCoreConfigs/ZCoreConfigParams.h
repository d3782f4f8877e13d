#pragma once

#include "ZCoreConfigs/ZConfig.h"
#include "ZShared/Enumerations.h"
#include "ZShared/ZFolderGuard.h"

/// Where log lines go, and from which level on.
class ZLogParams : public ZConfig {
    Z_MESSAGE(ZLogParams, ZConfig)
public:
    using ZConfig::ZConfig;
    std::int32_t m_Level = 2;
    bool m_bConsole = true;
    bool m_bJournal = false;
    ZString m_File;
    std::uint32_t m_FileSizeKiB = 1024;
    std::uint32_t m_FileCount = 5;

    Z_FIELDS(Z_FIELD(m_Level).In(0, 4).Means(
                 "Threshold of the host's own lines: 1 detail, 2 information, 3 warnings, 4 errors, 0 none."),
             Z_FIELD(m_bConsole).Means("Write to standard error."),
             Z_FIELD(m_bJournal).Means("Write to the system journal."),
             Z_FIELD(m_File).Path().OrEmpty().Means("A rotating log file. Empty: none."),
             Z_FIELD(m_FileSizeKiB).In(1, 4'194'304).Means("A file that grows past this is rotated."),
             Z_FIELD(m_FileCount).In(0, 1000).Means("Rotated files kept beside the current one."))
};

// The records of the logs that some graphs keep beside the main one. Nodes may be handed them; this host keeps one log.

class ZSideLogParams : public ZConfig {
    Z_MESSAGE(ZSideLogParams, ZConfig)
public:
    using ZConfig::ZConfig;
    bool m_bEnabled = false;
    ZString m_File;

    Z_FIELDS(Z_FIELD(m_bEnabled), Z_FIELD(m_File))
};
class ZTraceLogParams : public ZSideLogParams {
    Z_CLASS(ZTraceLogParams, ZConfig)
public:
    using ZSideLogParams::ZSideLogParams;
};
class ZAuditLogParams : public ZSideLogParams {
    Z_CLASS(ZAuditLogParams, ZConfig)
public:
    using ZSideLogParams::ZSideLogParams;
};
class ZMessageLogParams : public ZSideLogParams {
    Z_CLASS(ZMessageLogParams, ZConfig)
public:
    using ZSideLogParams::ZSideLogParams;
};
class ZReportParams : public ZSideLogParams {
    Z_CLASS(ZReportParams, ZConfig)
public:
    using ZSideLogParams::ZSideLogParams;
};

/// How the device is known to others.
class ZCommsParams : public ZConfig {
    Z_MESSAGE(ZCommsParams, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_AccessoryHostName;
    ZString m_DeviceHostName;

    Z_FIELDS(Z_FIELD(m_AccessoryHostName).Means("The accessory's fixed mDNS name, with \".local\". Empty: none."),
             Z_FIELD(m_DeviceHostName).Means("The host device's name."))
};

/// Folders that nodes share.
class ZFileLocationParams : public ZConfig {
    Z_MESSAGE(ZFileLocationParams, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_UpdatesFolder;

    Z_FIELDS(Z_FIELD(m_UpdatesFolder)
                 .Path()
                 .Checked(&IsFolderOfItsOwn,
                          "a folder of its own, since it is emptied at every start: not / nor one of the system's")
                 .OrEmpty()
                 .Means("Receives uploaded and transferred package files. Emptied at every start.",
                        "\"/var/lib/arbor/updates\""))
};

/// The settings of the graph as a whole, handed to every node beside its own record.
class ZCoreConfigParams : public ZConfig {
    Z_MESSAGE(ZCoreConfigParams, ZConfig)
public:
    using ZConfig::ZConfig;
    std::uint32_t m_RequestTimeoutSeconds = 30;
    std::uint32_t m_QueueLength = 256;
    std::uint32_t m_ShutdownGraceSeconds = 30;
    // Sections of their own, and what no file says.
    ZFileLocationParams m_Files;
    ZCommsParams m_Comms;
    ZString m_GraphFile;  ///< where these settings come from: never to be deleted; empty: from no file

    void SetEnvironment(const std::shared_ptr<ZEnvironment>& environment) override;
    /// The updates folder in its normal form, without a slash at its end; empty when none is configured.
    std::filesystem::path UpdatesFolder() const;

    Z_FIELDS(Z_FIELD(m_RequestTimeoutSeconds).In(1, 3600).Means("How long a request waits for its answer."),
             Z_FIELD(m_QueueLength).In(1, 1'000'000).Means("Messages that may wait for one node."),
             Z_FIELD(m_ShutdownGraceSeconds).In(0, 3600).Means("How long nodes may refuse to stop."))
};
