#pragma once

#include <filesystem>

#include "ZCoreConfigs/ZConfig.h"

/// The node's configuration record. Keys stand in the graph file exactly as written here.
class ZNodeArborInstallCfg : public ZConfig {
    Z_CLASS(ZNodeArborInstallCfg, ZConfig)
public:
    ZNodeArborInstallCfg() = default;
    explicit ZNodeArborInstallCfg(const ZString& name) : ZConfig(name) {}

    ZString m_ArchiveDevice;
    ZString m_ArchiveDir;
    ZString m_SystemInfoFilePath;
    bool m_bAllowDowngrades = false;
    std::uint16_t m_ProgressPort = 0;
    ZString m_ProgressPath;
    bool m_bDryRun = false;
    ZString m_SwitchPartitionCmd;
    ZString m_RunRecoveryCmd;
    std::uint32_t m_CheckTimeoutSeconds = 60;
    std::uint32_t m_AccessoryPatienceSeconds = 60;
    ZString m_TrustedSigners;
    bool m_bUnconfinedChecks = false;
    ZString m_TrustState;
    bool m_bAcceptDevelopment = false;

    /// Derived, when the record is read: the device's mount point and ArchiveDir, which is a further component whatever
    /// it begins with. ArchiveDir alone when the device is not mounted; empty without a device.
    std::filesystem::path m_archiveRoot;
    /// Derived: where the device is mounted; empty when it is not.
    std::filesystem::path m_archiveMount;

    /// Writes the nine keys that every reader of a record knows; true.
    bool Serialize(ZCommStream& stream) const override;
    /// Reads what is there and looks the archive device up; true. stream.Error() tells of values of a wrong type.
    bool Deserialize(ZCommStream& stream) override;
    void CloneDataMembers(const ZMessage& from) override;
    void VisitFields(const ZFieldVisitor& visitor) override;

    /// The path with its variables resolved by the record's environment; empty when that fails or there is none.
    ZString GetSystemInfoFilePath() const { return Resolved(m_SystemInfoFilePath); }

private:
    /// Whether a text stays below the folder that it is appended to.
    static bool StaysBelow(std::string_view path);
    static bool IsSocketName(std::string_view path);

    static constexpr auto Fields() {
        using Self = ZNodeArborInstallCfg;
        return std::make_tuple(
            Z_KEYED_FIELD("ArchiveDevice", m_ArchiveDevice)
                .Means("The block device that holds the package archive, under any of its names. Empty: no archive.",
                       "\"/dev/mmcblk1p3\""),
            Z_KEYED_FIELD("ArchiveDir", m_ArchiveDir)
                .Checked(&StaysBelow, "a folder below the device's mount point, without \"..\"")
                .Means("The archive's folder, below the device's mount point. What is no version's folder there is "
                       "deleted "
                       "at every start.",
                       "\"Packages\""),
            Z_KEYED_FIELD("SystemInfoFilePath", m_SystemInfoFilePath)
                .Means("The installed system's manifest. May hold environment variables.",
                       "\"/etc/arbor/Manifest.json\""),
            Z_KEYED_FIELD("AllowDowngrades", m_bAllowDowngrades)
                .Means("Whether a package older than the installed system may be installed."),
            Z_KEYED_FIELD("ProgressPort", m_ProgressPort)
                .Means("TCP port on which an accessory's installer reports its progress.", "5600"),
            Z_KEYED_FIELD("ProgressPath", m_ProgressPath)
                .Checked(&IsSocketName, "a file's name")
                .OrEmpty()
                .Means("The socket on which the installer reports its progress, in the archive's folder.",
                       "\"progress\""),
            Z_KEYED_FIELD("DryRun", m_bDryRun).Means("Installers only say what they would do."),
            Z_KEYED_FIELD("SwitchPartitionCmd", m_SwitchPartitionCmd)
                .Means("Shell command that switches the boot partition."),
            Z_KEYED_FIELD("RunRecoveryCmd", m_RunRecoveryCmd)
                .Means("Shell command that switches to the recovery system."));
    }
    /// Read beside the nine, and never written: whoever copies a record by its text keeps what was always in it.
    static constexpr auto FurtherFields() {
        using Self = ZNodeArborInstallCfg;
        return std::make_tuple(
            Z_KEYED_FIELD("CheckTimeoutSeconds", m_CheckTimeoutSeconds)
                .In(1, 3600)
                .Means("How long the check of a package file may take."),
            Z_KEYED_FIELD("AccessoryPatienceSeconds", m_AccessoryPatienceSeconds)
                .In(1, 3600)
                .Means("How long an accessory's installer may be out of reach until its install counts as failed."),
            Z_KEYED_FIELD("TrustedSigners", m_TrustedSigners)
                .Path()
                .OrEmpty()
                .Means("Folder that says whose packages may run, by a trust document (arbor-trust.json) or by "
                       "certificates: nothing of others runs. Empty: whatever is brought and may be executed runs, as "
                       "root.",
                       "\"/etc/arbor/trust\""),
            Z_KEYED_FIELD("UnconfinedChecks", m_bUnconfinedChecks)
                .Means(
                    "Whether packages of trusted signers are checked where this system can't confine the check; else "
                    "they are refused there."),
            Z_KEYED_FIELD("TrustState", m_TrustState)
                .Path()
                .OrEmpty()
                .Means("Folder on the data partition where newer trust documents are kept. Empty: the one of the "
                       "system stays in force.",
                       "\"/var/lib/arbor/trust\""),
            Z_KEYED_FIELD("AcceptDevelopment", m_bAcceptDevelopment)
                .Means("Whether packages run that a trust document's development keys signed."));
    }
};
