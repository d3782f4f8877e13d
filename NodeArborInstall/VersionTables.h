#pragma once

#include <filesystem>
#include <functional>
#include <map>
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

    /// An archived version: its package for `board`, if it has one, and its manifest, if that could be read. What is
    /// known already stays.
    void AddArchived(const ZSoftwareVersion& version, const std::optional<std::filesystem::path>& package,
                     const ZString& board, const std::shared_ptr<ZSystemManifestMsg>& manifest);
    /// A package that was built just now for a board, in place of one that is known.
    void SetBuild(const ZSoftwareVersion& version, const ZString& board, const std::filesystem::path& package);
    /// The archived package of the version for the board.
    std::optional<std::filesystem::path> BuildFor(const ZSoftwareVersion& version, const ZString& board) const;
    /// The board that a package in the archive was built for; empty when that is not known.
    ZString BoardOf(const std::filesystem::path& package) const;

    std::optional<std::filesystem::path> Build(const ZSoftwareVersion& version) const;
    std::optional<std::filesystem::path> Package(const ZSoftwareVersion& version) const;
    std::shared_ptr<ZSystemManifestMsg> Manifest(const ZSoftwareVersion& version) const;
    BuildTable Builds() const;
    /// The newest first.
    PackageTable Packages() const;

    /// A package file that was checked. `order` tells the checks of one version apart: the greatest counts.
    struct Place {
        ZSoftwareVersion version;
        std::filesystem::path file;
        std::uint64_t order = 0;
        std::int64_t size = -1;  ///< in bytes; negative: not known
        std::string signer;      ///< empty: not known
    };
    enum class Recorded { Yes, Gone };
    /// Records a package file. An entry that its path had goes, and is put into `erased`. `isWanted` is asked with the
    /// tables locked, and must return at once: a drive that is pulled later is forgotten later, one that was pulled
    /// before is known to it.
    Recorded RecordPackage(const Place& place, const std::function<bool()>& isWanted,
                           std::optional<PackageTable::value_type>& erased);
    /// Every place of every version that is known, the newest version first, and of one version what counts first.
    std::vector<Place> Places() const;
    /// Forgets the found packages that lie on the drive, and returns them; another place of the same version counts
    /// from now on. By path components: /media/usb1 holds nothing of /media/usb10.
    std::vector<std::filesystem::path> RemoveDrive(const std::filesystem::path& drive);
    /// Forgets one file; whether it was known.
    bool Forget(const std::filesystem::path& file);

    /// Whether the drive's path components are a leading run of the file's.
    static bool IsOnDrive(const std::filesystem::path& file, const std::filesystem::path& drive);

private:
    friend class NodeAccess;  // tests look at the tables

    /// Lets go of the places that `isGone` accepts; of their versions another place counts, or none.
    std::vector<std::filesystem::path> Remove(const std::function<bool(const std::filesystem::path&)>& isGone);

    mutable std::mutex m_mutex;
    ManifestTable m_manifests;
    BuildTable m_builds;
    std::map<std::filesystem::path, ZString> m_boards;  // of packages in the archive
    PackageTable m_packages;
    std::vector<Place> m_places;
};
