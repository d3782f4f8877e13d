#pragma once

#include <filesystem>

#include "ZCoreConfigs/ZConfig.h"

/// The node's configuration record. Keys stand in the graph file exactly as written here.
class ZNodeArborInstallCfg : public ZConfig {
    Z_CLASS(ZNodeArborInstallCfg, ZConfig)
public:
    ZNodeArborInstallCfg() = default;
    explicit ZNodeArborInstallCfg(const ZString& name) : ZConfig(name) {}

    ZString m_ArchiveDevice;       ///< block device that holds the package archive; empty: no archive
    ZString m_ArchiveDir;          ///< the archive's directory below the device's mount point
    ZString m_SystemInfoFilePath;  ///< the installed system's manifest; may hold environment variables
    bool m_bAllowDowngrades = false;
    std::uint16_t m_ProgressPort = 0;  ///< TCP port on which an accessory's installer reports
    ZString m_ProgressPath;            ///< local socket on which the installer reports, below the archive directory
    bool m_bDryRun = false;
    ZString m_SwitchPartitionCmd;  ///< shell command that switches the boot partition
    ZString m_RunRecoveryCmd;      ///< shell command that switches to the recovery system

    /// Derived, when the record is read: the device's mount point and ArchiveDir. ArchiveDir alone when the device is
    /// not mounted; empty without a device.
    std::filesystem::path m_archiveRoot;

    /// Writes all nine keys; true.
    bool Serialize(ZCommStream& stream) const override;
    /// Reads what is there and looks the archive device up; true. stream.Error() tells of values of a wrong type.
    bool Deserialize(ZCommStream& stream) override;
    void CloneDataMembers(const ZMessage& from) override;

    /// The path with its variables resolved by the record's environment; empty when that fails or there is none.
    ZString GetSystemInfoFilePath() const { return Resolved(m_SystemInfoFilePath); }

private:
    static constexpr auto Fields() {
        using Self = ZNodeArborInstallCfg;
        return std::make_tuple(
            Z_KEYED_FIELD("ArchiveDevice", m_ArchiveDevice), Z_KEYED_FIELD("ArchiveDir", m_ArchiveDir),
            Z_KEYED_FIELD("SystemInfoFilePath", m_SystemInfoFilePath),
            Z_KEYED_FIELD("AllowDowngrades", m_bAllowDowngrades), Z_KEYED_FIELD("ProgressPort", m_ProgressPort),
            Z_KEYED_FIELD("ProgressPath", m_ProgressPath), Z_KEYED_FIELD("DryRun", m_bDryRun),
            Z_KEYED_FIELD("SwitchPartitionCmd", m_SwitchPartitionCmd),
            Z_KEYED_FIELD("RunRecoveryCmd", m_RunRecoveryCmd));
    }
};
