#include "ZNodeArborInstall.h"
#include "ZShared/ZLog.h"

namespace fs = std::filesystem;

fs::path ZNodeArborInstall::GetBuild(ZSoftwareVersion& version) {
    try {
        const std::lock_guard lock(m_tablesMutex);
        return m_builds.at(version);
    } catch (const std::out_of_range&) {
        Z_LOG(3, "Could not find build for version %s", version.Get());
        return {};
    }
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
    {
        const std::lock_guard lock(m_tablesMutex);
        if (const auto found = m_packages.find(version); found != m_packages.end()) {
            path = found->second;
        }
    }
    if (path.empty()) {
        Z_LOG(3, "No packages for %s", version.Get());
    } else {
        Z_LOG(2, "Found Package version %s file %s", version.Get(), path);
    }
    return path;
}

bool ZNodeArborInstall::FindPackage(const ZString& versionText, fs::path& packagePath) {
    const ZSoftwareVersion version(versionText);
    {
        const std::lock_guard lock(m_tablesMutex);
        const auto found = m_packages.find(version);
        if (found == m_packages.end()) {
            return false;
        }
        packagePath = found->second;
    }
    return fs::exists(packagePath);
}

std::shared_ptr<ZSystemManifestMsg> ZNodeArborInstall::LoadManifest(const fs::path& path) {
    const auto stream = ZCAST(ZCommStream, ZShared::ZFactory::Instance().CreateShared("ZJSONCommStream"));
    if (!stream) {
        return nullptr;
    }
    auto manifest = ZCAST(ZSystemManifestMsg, ZMessage::Load(path, *stream));
    if (!manifest) {
        const std::string reason = stream->Error();
        Z_LOG(3, "Manifest %s: %s", path, reason.empty() ? "it is of another class" : reason.c_str());
    }
    return manifest;
}

std::shared_ptr<ZSystemManifestMsg> ZNodeArborInstall::LoadManifest(const ZString& text) {
    return LoadManifest(fs::path(text));
}
