#include "VersionTables.h"

#include <algorithm>

namespace fs = std::filesystem;

namespace {

/// Whether the drive's path components are a leading run of the file's.
bool IsOnDrive(const fs::path& file, const fs::path& drive) {
    const auto ends = std::mismatch(drive.begin(), drive.end(), file.begin(), file.end());
    // "/media/usb1/" ends in an empty component, which no file has there.
    return ends.first == drive.end() || (ends.first->empty() && std::next(ends.first) == drive.end());
}

template <typename Table>
std::optional<typename Table::mapped_type> Find(const Table& table, const ZSoftwareVersion& version) {
    const auto found = table.find(version);
    return found == table.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

void VersionTables::AddArchived(const ZSoftwareVersion& version, const std::optional<fs::path>& package,
                                const std::shared_ptr<ZSystemManifestMsg>& manifest) {
    const std::lock_guard lock(m_mutex);
    if (package) {
        m_builds.emplace(version, *package);
    }
    if (manifest) {
        m_manifests.emplace(version, manifest);
    }
}

void VersionTables::SetBuild(const ZSoftwareVersion& version, const fs::path& package) {
    const std::lock_guard lock(m_mutex);
    m_builds[version] = package;
}

std::optional<fs::path> VersionTables::Build(const ZSoftwareVersion& version) const {
    const std::lock_guard lock(m_mutex);
    return Find(m_builds, version);
}

std::optional<fs::path> VersionTables::Package(const ZSoftwareVersion& version) const {
    const std::lock_guard lock(m_mutex);
    return Find(m_packages, version);
}

std::shared_ptr<ZSystemManifestMsg> VersionTables::Manifest(const ZSoftwareVersion& version) const {
    const std::lock_guard lock(m_mutex);
    return Find(m_manifests, version).value_or(nullptr);
}

VersionTables::BuildTable VersionTables::Builds() const {
    const std::lock_guard lock(m_mutex);
    return m_builds;
}

VersionTables::PackageTable VersionTables::Packages() const {
    const std::lock_guard lock(m_mutex);
    return m_packages;
}

VersionTables::Recorded VersionTables::RecordPackage(const ZSoftwareVersion& version, const fs::path& file,
                                                     const std::function<bool()>& isThere,
                                                     std::optional<PackageTable::value_type>& erased) {
    const std::lock_guard lock(m_mutex);
    if (!isThere()) {
        return Recorded::Gone;
    }
    const auto same = std::ranges::find(m_packages, file, &PackageTable::value_type::second);
    if (same != m_packages.end()) {
        erased.emplace(*same);
        m_packages.erase(same);
    }
    m_packages[version] = file;
    return Recorded::Yes;
}

std::vector<fs::path> VersionTables::RemoveDrive(const fs::path& drive) {
    const std::lock_guard lock(m_mutex);
    std::vector<fs::path> removed;
    std::erase_if(m_packages, [&](const auto& entry) {
        const bool isOnDrive = IsOnDrive(entry.second.lexically_normal(), drive);
        if (isOnDrive) {
            removed.push_back(entry.second);
        }
        return isOnDrive;
    });
    return removed;
}
