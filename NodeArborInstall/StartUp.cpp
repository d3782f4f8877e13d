#include <magic_enum/magic_enum.hpp>

#include "PackageFiles.h"
#include "ZNodeArborInstall.h"
#include "ZShared/ZFolderGuard.h"
#include "ZShared/ZPlatform.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kManifestName = "Manifest.json";

}  // namespace

bool ZNodeArborInstall::OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) {
    if (!ZNode::OnConfig(message, config)) {
        return false;
    }
    ReadIdentity();
    m_pConfig = ZCAST(ZNodeArborInstallCfg, config);
    if (!m_pConfig) {
        Z_LOG(4, "Failed to cast config to ZSystemUpdaterConfigMsg (Class Name = <%s>)!",
              config ? config->ClassName() : "nullptr");
        return false;
    }
    m_archivePath = m_pConfig->m_archiveRoot;
    ReadTrust();
    PrepareUpdatesFolder(ZCAST(ZCoreConfigParams, message));
    ReadInstalledSystem();
    ReadArchive();
    return true;
}

void ZNodeArborInstall::ReadIdentity() {
    if (ZPlatform::ReadModel(m_model)) {
        m_deviceModel = magic_enum::enum_cast<ZDeviceModel>(std::string_view(m_model));
        Z_LOG(2, "EEPROM contains device model <%s>.", m_model);
    }
    if (ZPlatform::ReadSerialNumber(m_serialNumber)) {
        Z_LOG(2, "Set serial number from eeprom to <%s>.", m_serialNumber);
    }
    if (ZPlatform::ReadBoard(m_board)) {
        Z_LOG(2, "Set Board from eeprom to <%s>", m_board);
    }
}

void ZNodeArborInstall::ReadTrust() {
    m_trust = PackageTrust({.signers = fs::path(m_pConfig->m_TrustedSigners),
                            .state = fs::path(m_pConfig->m_TrustState),
                            .acceptsDevelopment = m_pConfig->m_bAcceptDevelopment,
                            .goesOnUnconfined = m_pConfig->m_bUnconfinedChecks});
    if (!m_trust.IsOn()) {
        Z_LOG(3, "No trusted signers are configured: every package that is brought runs, as root");
        return;
    }
    if (m_pConfig->m_bAcceptDevelopment) {
        Z_LOG(3, "Packages of development keys run here");
    }
    if (const auto signers = m_trust.Signers(); !signers) {
        Z_LOG(4, "With trusted signers, %s", TrustProblem(signers));
    } else if (signers->Document() != nullptr) {
        Z_LOG(2, "Trust document %u is in force", signers->Document()->number);
    }
    m_trust.TryConfining([this](const ZResult<void>& confined) {
        if (!confined) {
            Z_LOG(m_pConfig->m_bUnconfinedChecks ? 3 : 4, "With trusted signers, %s", ConfinementProblem(confined));
        }
    });
}

void ZNodeArborInstall::PrepareUpdatesFolder(const std::shared_ptr<ZCoreConfigParams>& core) {
    std::vector<fs::path> keep{m_archivePath, fs::path(m_pConfig->GetSystemInfoFilePath())};
    if (core) {
        m_accessoryHostName = core->m_Comms.m_AccessoryHostName;
        m_deviceHostName = core->m_Comms.m_DeviceHostName;
        m_updatesPath = core->UpdatesFolder();
        m_graphFile = fs::path(core->m_GraphFile);
        keep.push_back(m_graphFile);
    }
    if (m_updatesPath.empty()) {
        Z_LOG(3, "No updates folder is configured");
        return;
    }
    if (const auto may = MayBeEmptied(m_updatesPath, keep); !may) {
        Z_LOG(4, "%s", may.error().text);
        return;
    }
    try {
        MakeEmptyFolder(m_updatesPath);
    } catch (const fs::filesystem_error& error) {
        Z_LOG(4, "%s", error.what());
    }
}

void ZNodeArborInstall::MakeEmptyFolder(const fs::path& folder) {
    fs::create_directories(folder.parent_path());
    if (fs::is_directory(folder)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
            std::error_code error;
            fs::remove_all(entry.path(), error);
            if (error) {
                Z_LOG(4, "Error deleting %s: %s", entry.path(), error.message());
            }
        }
        return;
    }
    if (fs::exists(fs::symlink_status(folder))) {
        Z_LOG(3, "Update folder %s was not a directory. Delete it and re-create", folder);
        fs::remove(folder);
    } else {
        Z_LOG(2, "Create updates folder %s", folder);
    }
    fs::create_directory(folder);
}

void ZNodeArborInstall::ReadInstalledSystem() {
    const ZString path = m_pConfig->GetSystemInfoFilePath();
    if (std::error_code error; !fs::exists(fs::path(path), error)) {
        // Without it every package counts as newer: whoever wonders finds the reason here.
        Z_LOG(3, "The installed version is unknown: the manifest \"%s\" %s", m_pConfig->m_SystemInfoFilePath,
              path.empty() ? "is not configured, or names a variable that is not set" : "does not exist");
        return;
    }
    const auto manifest = LoadManifest(path);
    if (!manifest) {
        Z_LOG(3, "Could not recognize %s as a System Manifest", path);
        return;
    }
    if (!manifest->m_SystemVersion.empty()) {
        m_systemVersion = ZSoftwareVersion(manifest->m_SystemVersion);
    }
    LogInstalledSystem(*manifest);
}

void ZNodeArborInstall::LogInstalledSystem(const ZSystemManifestMsg& manifest) {
    Z_LOG(2, "------------ SYSTEM VERSION INFO ------------");
    Z_LOG(2, "System Version = <%s>.", m_systemVersion.Get());
    Z_LOG(2, "System Installer Version = <%s>", manifest.m_InstallerVersion);
    for (const auto& component : manifest.m_Components) {
        Z_LOG(2, " - Component <%s> Version = <%s> Board = <%s>.", component->m_Name, component->m_Version,
              component->m_Board);
    }
    Z_LOG(2, "------------ SYSTEM VERSION INFO ------------");
}

void ZNodeArborInstall::ReadArchive() {
    try {
        if (HasArchive()) {
            Z_LOG(2, "Archive path = <%s>", m_archivePath);
            ReadVersionDirectories();
        }
    } catch (const fs::filesystem_error&) {
        Z_LOG(4, "Filesystem exception for archive path <%s>", m_archivePath);
    }
}

bool ZNodeArborInstall::HasArchive() {
    if (m_pConfig->m_ArchiveDevice.empty()) {
        Z_LOG(3, "No archive device is configured");
        return false;
    }
    // Asked again: the record may have been read a while ago.
    const fs::path mount = ZPlatform::GetMountPointFromDevice(ToStdString(m_pConfig->m_ArchiveDevice));
    if (mount.empty() || mount != m_pConfig->m_archiveMount) {
        Z_LOG(4, "Archive device %s is not mounted: there is no archive", m_pConfig->m_ArchiveDevice);
        return false;
    }
    static_cast<void>(fs::weakly_canonical(m_archivePath));  // throws when its links lead nowhere
    if (!LiesIn(m_archivePath, m_pConfig->m_archiveMount)) {
        Z_LOG(4, "Archive folder %s is not on its device: there is no archive", m_archivePath);
        return false;
    }
    if (!fs::is_directory(m_archivePath)) {
        fs::create_directories(m_archivePath);
    }
    return true;
}

void ZNodeArborInstall::ReadVersionDirectories() {
    std::vector<fs::path> invalid;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_archivePath)) {
        const ZSoftwareVersion version(ToZString(entry.path().filename().string()));
        if (!entry.is_directory()) {
            Z_LOG(2, "Skipping %s as it is not a directory", entry.path());
        } else if (!version.m_valid) {
            Z_LOG(2, "<%s> Not a valid version", version.Get());
            invalid.push_back(entry.path());
        } else {
            ReadVersionDirectory(entry.path(), version);
        }
    }
    if (!invalid.empty()) {
        DeleteInvalidDirectories(invalid);
    }
}

void ZNodeArborInstall::DeleteInvalidDirectories(const std::vector<fs::path>& directories) {
    if (const auto may = MayBeEmptied(m_archivePath, {}, m_pConfig->m_archiveMount); !may) {
        Z_LOG(4, "%s", may.error().text);
        return;
    }
    const std::vector<fs::path> keep{m_updatesPath, m_graphFile, fs::path(m_pConfig->GetSystemInfoFilePath())};
    for (const fs::path& directory : directories) {
        if (const auto may = MayBeEmptied(directory, keep, m_archivePath); !may) {
            Z_LOG(4, "%s", may.error().text);
            continue;
        }
        Z_LOG(2, "Deleting invalid directory <%s>", directory);
        fs::remove_all(directory);
    }
}

void ZNodeArborInstall::ReadVersionDirectory(const fs::path& directory, const ZSoftwareVersion& version) {
    const fs::path package = directory / kPackageName;
    const fs::path manifestFile = directory / kManifestName;
    Z_LOG(2, "Directory <%s> Version <%s> File <%s> Manifest <%s>", directory.c_str(), version.Get(), package.c_str(),
          fs::exists(manifestFile) ? manifestFile.c_str() : "no manifest");
    const auto manifest = LoadManifest(manifestFile);
    if (!manifest) {
        Z_LOG(4, "Manifest file %s was not loaded", manifestFile);
    }
    // Without its package the version is not a build yet: one can be made for a board that asks.
    std::error_code error;
    m_tables.AddArchived(version, fs::exists(package, error) ? std::optional(package) : std::nullopt, kPackageBoard,
                         manifest);
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
