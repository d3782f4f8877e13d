#include "ZNodeArborInstall.h"

namespace fs = std::filesystem;

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
    return fs::exists(packagePath);
}
