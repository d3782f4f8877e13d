#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>

#include "ZMessages/Messages.h"
#include "ZSoftwareVersion.h"

/// What the node knows by version: archived packages, archived manifests, and packages found on storage devices.
/// Thread-safe as a whole; nothing here logs, and no file is looked at
/// but by what a caller hands in. Lookups are exact.
class VersionTables {
public:
    using BuildTable = ZMap<ZSoftwareVersion, std::filesystem::path, std::less<ZSoftwareVersion>>;
    using PackageTable = ZMap<ZSoftwareVersion, std::filesystem::path, std::greater<ZSoftwareVersion>>;
    using ManifestTable = ZMap<ZSoftwareVersion, std::shared_ptr<ZSystemManifestMsg>, std::less<ZSoftwareVersion>>;

    /// An archived version: its package, if it has one, and its manifest, if that could be read. What is known already
    /// stays.
    void AddArchived(const ZSoftwareVersion& version, const std::optional<std::filesystem::path>& package,
                     const std::shared_ptr<ZSystemManifestMsg>& manifest);
    /// A package that was built just now, in place of one that is known.
    void SetBuild(const ZSoftwareVersion& version, const std::filesystem::path& package);

    std::optional<std::filesystem::path> Build(const ZSoftwareVersion& version) const;
    std::optional<std::filesystem::path> Package(const ZSoftwareVersion& version) const;
    std::shared_ptr<ZSystemManifestMsg> Manifest(const ZSoftwareVersion& version) const;
    BuildTable Builds() const;
    /// The newest first.
    PackageTable Packages() const;

    enum class Recorded { Yes, Gone };
    /// A package file that was checked. Of two files with one version the one checked last counts; an entry that `file`
    /// had under another version goes, and is put into `erased`. `isThere` is asked with the tables locked: a drive
    /// that is pulled later is forgotten later, one that was pulled before is seen here.
    Recorded RecordPackage(const ZSoftwareVersion& version, const std::filesystem::path& file,
                           const std::function<bool()>& isThere, std::optional<PackageTable::value_type>& erased);
    /// Forgets the found packages that lie on the drive, and returns them. By path components: /media/usb1 holds
    /// nothing of /media/usb10.
    std::vector<std::filesystem::path> RemoveDrive(const std::filesystem::path& drive);

private:
    friend class NodeAccess;  // tests look at the tables

    mutable std::mutex m_mutex;
    ManifestTable m_manifests;
    BuildTable m_builds;
    PackageTable m_packages;
};
