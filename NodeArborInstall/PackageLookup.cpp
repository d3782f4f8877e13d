#include <algorithm>

#include "ZNodeArborInstall.h"
#include "ZShared/ZCommandRunner.h"

namespace fs = std::filesystem;

namespace {

constexpr auto kDrivePatience = std::chrono::seconds(2);
constexpr auto kDrivesPatience = std::chrono::seconds(5);

}  // namespace

fs::path ZNodeArborInstall::GetBuild(ZSoftwareVersion& version) {
    auto build = m_tables.Build(version);
    if (!build) {
        Z_LOG(3, "Could not find build for version %s", version.Get());
    }
    return build.value_or(fs::path());
}

fs::path ZNodeArborInstall::GetPackage(const ZString& versionText) {
    ZSoftwareVersion version(versionText);
    if (!version.m_valid) {
        Z_LOG(4, "Could not create ZSoftwareVersion from %s", versionText);
        return {};
    }
    fs::path path = GetBuild(version);
    if (!path.empty()) {
        return path;
    }
    Z_LOG(2, "No builds for %s, check for packages", version.Get());
    path = m_tables.Package(version).value_or(fs::path());
    if (path.empty()) {
        Z_LOG(3, "No packages for %s", version.Get());
    } else {
        Z_LOG(2, "Found Package version %s file %s", version.Get(), path);
    }
    return path;
}

bool ZNodeArborInstall::FindPackage(const ZString& versionText, fs::path& packagePath) {
    const auto package = m_tables.Package(ZSoftwareVersion(versionText));
    if (!package) {
        return false;
    }
    packagePath = *package;
    // The drive may not answer any more, and whoever calls must.
    const auto exists = ExistsWithin(packagePath.string(), kDrivePatience);
    if (!exists) {
        Z_LOG(4, "%s", exists.error().text);
    }
    return exists && *exists;
}

bool ZNodeArborInstall::MayBeExchanged(const fs::path& package) const {
    // By its name: the drive that it may be on is not asked.
    const fs::path below = package.lexically_relative(m_archivePath);
    return m_trust.IsOn() && (below.empty() || *below.begin() == ".." || IsUpload(package));
}

ZResult<void> ZNodeArborInstall::IsArchiveOwn() {
    if (!m_trust.IsOn()) {
        return {};  // then every file is believed, wherever it is
    }
    std::shared_ptr<ZMessage> answer;
    const auto outcome = PublishWithOutcome(GetEndpoint(ZEndpointType::GraphService, "getdevices", 0),
                                            Z_MAKE(ZGenericRequestMsg), &answer, {true, false, kDrivesPatience});
    const auto told = ZCAST(StorageDevicesMsg, answer);
    if (!told && (outcome == ZPublishOutcome::NoAnswer || outcome == ZPublishOutcome::QueueFull)) {
        return ZError(
            "whether the archive is on a drive that may be pulled is not known: the drives were not told in time");
    }
    const auto holdsArchive = [this](const ZString& drive) {
        return VersionTables::IsOnDrive(m_archivePath, fs::path(drive).lexically_normal());
    };
    if (!told || std::ranges::none_of(told->m_Devices, holdsArchive)) {
        return {};
    }
    return ZError(m_archivePath.string() +
                  " is on a drive that may be pulled: what is in it may be anybody's (ArchiveDevice, excludedRoots)");
}

fs::path ZNodeArborInstall::PackageFor(const ZString& version, ZDeviceModel accessory, std::string& reason) {
    fs::path package = GetPackage(version);
    if (package.empty()) {
        reason = "there is no package of version " + ToStdString(version);
        return package;
    }
    const auto boards = m_accessoryBoards.Copy();
    const auto asked = boards.find(accessory);
    const ZString built = m_tables.BoardOf(package);
    if (asked == boards.end() || built.empty() || built == asked->second) {
        return package;  // as far as it is known, it fits
    }
    if (const auto fitting = m_tables.BuildFor(ZSoftwareVersion(version), asked->second)) {
        return *fitting;
    }
    reason = "the package of version " + ToStdString(version) + " is for board " + ToStdString(built) +
             ", the accessory has " + ToStdString(asked->second);
    return {};
}
