#pragma once

#include "ZCoreConfigs/ZConfig.h"
#include "ZShared/Enumerations.h"

/// Where log lines go, and from which level on.
class ZLogParams : public ZConfig {
    Z_MESSAGE(ZLogParams, ZConfig)
public:
    using ZConfig::ZConfig;
    std::int32_t m_Level = 2;  ///< threshold of the host's own lines; 0 silences them
    bool m_bConsole = true;
    bool m_bJournal = false;
    ZString m_File;  ///< empty: no file
    std::uint32_t m_FileSizeKiB = 1024;
    std::uint32_t m_FileCount = 5;

    Z_FIELDS(Z_FIELD(m_Level), Z_FIELD(m_bConsole), Z_FIELD(m_bJournal), Z_FIELD(m_File), Z_FIELD(m_FileSizeKiB),
             Z_FIELD(m_FileCount))
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
    ZString m_AccessoryHostName;  ///< the accessory's fixed mDNS name, with ".local"; empty: none
    ZString m_DeviceHostName;     ///< the host device's

    Z_FIELDS(Z_FIELD(m_AccessoryHostName), Z_FIELD(m_DeviceHostName))
};

/// Folders that nodes share. Values may hold environment variables until ResolvePaths has run.
class ZFileLocationParams : public ZConfig {
    Z_MESSAGE(ZFileLocationParams, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_UpdatesFolder;  ///< receives uploaded and transferred package files; emptied at start-up

    void ResolvePaths() override;

    Z_FIELDS(Z_FIELD(m_UpdatesFolder))
};

/// The settings of the graph as a whole, handed to every node beside its own record.
class ZCoreConfigParams : public ZConfig {
    Z_MESSAGE(ZCoreConfigParams, ZConfig)
public:
    using ZConfig::ZConfig;
    std::uint32_t m_RequestTimeoutSeconds = 30;  ///< how long a request waits for its answer
    std::uint32_t m_QueueLength = 256;           ///< messages that may wait for one node
    std::uint32_t m_ShutdownGraceSeconds = 30;   ///< how long nodes may refuse to stop
    ZFileLocationParams m_Files;
    ZCommsParams m_Comms;

    void SetEnvironment(const std::shared_ptr<ZEnvironment>& environment) override;
    void ResolvePaths() override;

    Z_FIELDS(Z_FIELD(m_RequestTimeoutSeconds), Z_FIELD(m_QueueLength), Z_FIELD(m_ShutdownGraceSeconds))
};
