#include <algorithm>

#include "PackageFiles.h"
#include "ShellText.h"
#include "ZNodeArborInstall.h"
#include "ZShared/ZPlatform.h"

namespace fs = std::filesystem;

namespace {

// Far beyond any version; what is longer is a flood that began with a number.
constexpr std::size_t kLongestVersion = std::size_t{64} * 1024;

}  // namespace

bool ZNodeArborInstall::ProcessStorageDevices(const ZVector<ZString>& drives, std::shared_ptr<ZMessageArray>& results) {
    Z_LOG(2, "Processing Storage devices ");
    bool any = false;
    for (const ZString& drive : drives) {
        Z_LOG(2, "Checking drive %s", drive);
        any = ScanDrive(fs::path(drive), results) || any;
    }
    return any;
}

bool ZNodeArborInstall::ScanDrive(const fs::path& drive, std::shared_ptr<ZMessageArray>& results) {
    bool any = false;
    std::error_code error;
    fs::directory_iterator entry(drive, error);
    for (; !error && !InShutdown() && entry != fs::directory_iterator(); entry.increment(error)) {
        any = CheckDriveEntry(entry->path(), results) || any;
    }
    if (error) {
        Z_LOG(4, "Error reading drive %s: %s", drive, error.message());
    }
    return any;
}

bool ZNodeArborInstall::CheckDriveEntry(const fs::path& file, std::shared_ptr<ZMessageArray>& results) {
    Z_LOG(2, "Checking file %s", file);
    std::error_code error;
    const fs::file_status status = fs::status(file, error);
    if (error) {
        Z_LOG(4, "Error getting file permissions %d", error.value());
    }
    const bool known = !error && status.permissions() != fs::perms::unknown;
    const bool executable = known && IsExecutable(status.permissions());
    const bool regular = fs::is_regular_file(status);
    if (!executable || !regular) {
        Z_LOG(2, "File %s %s and %s", file.c_str(), executable ? "is executable" : "Not Executable",
              regular ? "is regular file" : "Is NOT a regular file");
        return false;
    }
    if (file.extension() != ".pkg") {
        return false;
    }
    Z_LOG(2, "Found package file %s", file);
    return CheckPackageFile(file, results);
}

bool ZNodeArborInstall::CheckPackageFile(const fs::path& file, std::shared_ptr<ZMessageArray>& results) {
    using Codes = ZFrameworkErrorCodes;
    const ZString path = ToZString(file.string());
    const std::string command = ShellEscape(file.string()) + " --version";
    std::string output;
    if (!ZPlatform::ExecuteCommand(command, output)) {
        Z_LOG(4, "Execute command %s failed: %s", command, output);
        AddInvalidPackage(results, "unknown", path, Codes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE);
        return false;
    }
    ZSoftwareVersion version;
    version.Set(ToZString(output));
    if (!version.m_valid || output.size() > kLongestVersion) {
        Z_LOG(4, "File <%s> Invalid package <%s>", path, output);
        AddInvalidPackage(results, "unknown", path, Codes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE);
        return true;
    }
    if (!VerifyPackageFile(file, version, output)) {
        Z_LOG(4, "Verification failed on %s: %s", path, output);
        AddInvalidPackage(results, version.m_text, path, Codes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE);
        return false;
    }
    if (!IsVersionAllowed(version, file)) {
        AddInvalidPackage(results, version.m_text, path, Codes::ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED);
        return true;
    }
    if (!RecordPackage(file, version)) {
        Z_LOG(4, "File <%s> went away while it was checked", path);
        AddInvalidPackage(results, version.m_text, path, Codes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE);
    }
    return true;
}

bool ZNodeArborInstall::VerifyPackageFile(const fs::path& file, const ZSoftwareVersion& version, std::string& output) {
    const std::string escaped = ShellEscape(file.string());
    Z_LOG(2, "Verify File <%s> Version <%s> Board <%s>", escaped, version.Get(), m_board);
    // The board stands unquoted in the command line: one that a shell would read as more than a word is not passed on.
    if (!IsPlainShellWord(m_board, true)) {
        output = "the board's name can't stand in a command line";
        return false;
    }
    return ZPlatform::ExecuteCommand(escaped + " --verify " + ToStdString(m_board), output);
}

bool ZNodeArborInstall::IsVersionAllowed(const ZSoftwareVersion& version, const fs::path& file) {
    const bool downgrades = Config().m_bAllowDowngrades;
    if (!(m_systemVersion < version) && !(m_systemVersion == version) && !downgrades) {
        Z_LOG(2, "Package version <%s> less than or equal to <%s> or downgrades %s", version.Get(),
              m_systemVersion.Get(), "Not Allowed");
        return false;
    }
    Z_LOG(2, "Package version <%s - %s> greater than or equal to <%s> or downgrades %s", version.Get(), file.c_str(),
          m_systemVersion.Get(), downgrades ? "Allowed" : "Not Allowed");
    return true;
}

bool ZNodeArborInstall::RecordPackage(const fs::path& file, const ZSoftwareVersion& version) {
    std::optional<VersionTables::PackageTable::value_type> erased;
    const auto isThere = [&file] {
        std::error_code error;
        return fs::exists(file, error);
    };
    if (m_tables.RecordPackage(version, file, isThere, erased) == VersionTables::Recorded::Gone) {
        return false;
    }
    if (erased) {
        Z_LOG(2, "Erasing duplicate package file %s version %s", erased->second, erased->first.Get());
    }
    return true;
}

bool ZNodeArborInstall::RemoveStorageDevices(const ZVector<ZString>& drives) {
    for (const ZString& drive : drives) {
        const fs::path root = fs::path(drive).lexically_normal();
        if (root.empty()) {
            continue;  // would be the beginning of every path
        }
        for (const fs::path& package : m_tables.RemoveDrive(root)) {
            Z_LOG(2, "Removing package %s", package);
        }
    }
    return true;
}

void ZNodeArborInstall::AddInvalidPackage(std::shared_ptr<ZMessageArray>& results, const ZString& version,
                                          const ZString& file, ZFrameworkErrorCodes::ZErrorCode code) {
    const auto record = Z_MAKE(ZVersionInfoMsg);
    record->m_bSuccess = false;
    record->m_ErrorCode = code;
    record->m_Version = version;
    record->m_VersionType = file;
    results->Add(record);
}

std::shared_ptr<ZVersionInfoMsg> ZNodeArborInstall::MakeUpdateRecord(const ZSoftwareVersion& version) {
    auto record = Z_MAKE(ZVersionInfoMsg);
    record->m_Version = version.m_text;
    record->m_VersionType = "System";
    return record;
}

void ZNodeArborInstall::CheckAvailableUpdates(std::shared_ptr<ZMessageArray>& results, bool publishAlways) {
    for (const auto& [version, path] : m_tables.Packages()) {
        Z_LOG(2, "Notify Software version %s is available for update", version.Get());
        results->Add(MakeUpdateRecord(version));
    }
    if (results->m_Messages.empty() && !publishAlways) {
        return;
    }
    if (!ZCAST(ZMessage, results)) {
        Z_LOG(4, "GCAST(ZMessage, pMessageSubclass) %s: %s", "Expected Base Class: ZMessage, ", results->ClassName());
        return;
    }
    if (Publish(GetEndpoint(ZEndpointType::GraphService, "updateavailable", 0), results)) {
        Z_LOG(2, "Sent software update available");
    } else {
        Z_LOG(3, "Software update available message has no destination endpoints");
    }
}
