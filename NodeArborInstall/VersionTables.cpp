#include "VersionTables.h"

#include <algorithm>

namespace fs = std::filesystem;

namespace {

template <typename Table>
std::optional<typename Table::mapped_type> Find(const Table& table, const ZSoftwareVersion& version) {
    const auto found = table.find(version);
    return found == table.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

bool VersionTables::IsOnDrive(const fs::path& file, const fs::path& drive) {
    const auto ends = std::mismatch(drive.begin(), drive.end(), file.begin(), file.end());
    // "/media/usb1/" ends in an empty component, which no file has there.
    return ends.first == drive.end() || (ends.first->empty() && std::next(ends.first) == drive.end());
}

void VersionTables::AddArchived(const ZSoftwareVersion& version, const std::optional<fs::path>& package,
                                const ZString& board, const std::shared_ptr<ZSystemManifestMsg>& manifest) {
    const std::lock_guard lock(m_mutex);
    if (package) {
        m_builds.emplace(version, *package);
        m_boards.emplace(*package, board);
    }
    if (manifest) {
        m_manifests.emplace(version, manifest);
    }
}

void VersionTables::SetBuild(const ZSoftwareVersion& version, const ZString& board, const fs::path& package) {
    const std::lock_guard lock(m_mutex);
    m_builds[version] = package;
    m_boards[package] = board;
}

std::optional<fs::path> VersionTables::BuildFor(const ZSoftwareVersion& version, const ZString& board) const {
    const std::lock_guard lock(m_mutex);
    const auto build = m_builds.find(version);
    for (const auto& [package, itsBoard] : m_boards) {
        // Packages for several boards lie side by side in the version's directory.
        if (build != m_builds.end() && itsBoard == board && package.parent_path() == build->second.parent_path()) {
            return package;
        }
    }
    return std::nullopt;
}

ZString VersionTables::BoardOf(const fs::path& package) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_boards.find(package);
    return found == m_boards.end() ? ZString() : found->second;
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

VersionTables::Recorded VersionTables::RecordPackage(const Place& place, const std::function<bool()>& isWanted,
                                                     std::optional<PackageTable::value_type>& erased) {
    const std::lock_guard lock(m_mutex);
    if (!isWanted()) {
        return Recorded::Gone;
    }
    const auto same = std::ranges::find(m_packages, place.file, &PackageTable::value_type::second);
    if (same != m_packages.end()) {
        erased.emplace(*same);
    }
    Remove([&](const fs::path& file) { return file == place.file; });
    m_places.push_back(place);
    const bool isNewest = std::ranges::none_of(
        m_places, [&](const Place& other) { return other.version == place.version && other.order > place.order; });
    if (isNewest) {
        m_packages[place.version] = place.file;
    }
    return Recorded::Yes;
}

std::vector<fs::path> VersionTables::Remove(const std::function<bool(const fs::path&)>& isGone) {
    std::erase_if(m_places, [&](const Place& place) { return isGone(place.file); });
    std::vector<fs::path> removed;
    for (auto entry = m_packages.begin(); entry != m_packages.end();) {
        if (!isGone(entry->second)) {
            ++entry;
            continue;
        }
        removed.push_back(entry->second);
        const Place* next = nullptr;
        for (const Place& place : m_places) {
            if (place.version == entry->first && (next == nullptr || place.order > next->order)) {
                next = &place;
            }
        }
        if (next != nullptr) {
            (entry++)->second = next->file;
        } else {
            entry = m_packages.erase(entry);
        }
    }
    return removed;
}

std::vector<fs::path> VersionTables::RemoveDrive(const fs::path& drive) {
    const std::lock_guard lock(m_mutex);
    return Remove([&](const fs::path& file) { return IsOnDrive(file.lexically_normal(), drive); });
}

bool VersionTables::Forget(const fs::path& file) {
    const std::lock_guard lock(m_mutex);
    return !Remove([&](const fs::path& known) { return known == file; }).empty();
}

std::vector<VersionTables::Place> VersionTables::Places() const {
    const std::lock_guard lock(m_mutex);
    std::vector<Place> places = m_places;
    std::ranges::sort(places, [](const Place& left, const Place& right) {
        return right.version < left.version || (!(left.version < right.version) && left.order > right.order);
    });
    return places;
}
