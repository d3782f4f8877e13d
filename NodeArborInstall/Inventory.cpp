#include <algorithm>

#include "InstallRecord.h"
#include "ZNodeArborInstall.h"

namespace fs = std::filesystem;

// What is known of versions and files, told to whoever asks; and files that are let go.

namespace {

constexpr std::size_t kMostRefused = 64;

std::int64_t FreeBytes(const fs::path& folder) {
    std::error_code error;
    const fs::space_info space = fs::space(folder, error);
    return error ? -1 : static_cast<std::int64_t>(space.available);
}

std::int64_t SizeOf(const fs::path& file) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    return error ? -1 : static_cast<std::int64_t>(size);
}

const char* RelationOf(const ZSoftwareVersion& version, const ZSoftwareVersion& installed) {
    if (!version.m_valid || !installed.m_valid) {
        return "";
    }
    return installed < version ? "newer" : version < installed ? "older" : "same";
}

}  // namespace

bool ZNodeArborInstall::OnInventory(const std::shared_ptr<ZMessage>& request) {
    const auto answer = Z_MAKE(ZInventoryMsg);
    answer->m_InstalledVersion = m_systemVersion.m_text;
    const SlotState slots = ReadSlots(m_slots);
    answer->m_RunningSlot = ToZString(slots.running);
    answer->m_NextSlot = ToZString(slots.next);
    answer->m_NextVersion = ToZString(slots.nextVersion);
    for (const VersionTables::Place& place : m_tables.Places()) {
        const auto package = Z_MAKE(ZPackageInfoMsg);
        package->m_Version = place.version.m_text;
        package->m_File = ToZString(place.file.string());
        package->m_Source = IsUpload(place.file) ? ZString("upload") : ToZString(place.file.parent_path().string());
        package->m_Relation = RelationOf(place.version, m_systemVersion);
        package->m_Board = m_board;  // it said so when it was checked
        package->m_Size = place.size;
        package->m_Signer = ToZString(place.signer);
        answer->m_Packages.push_back(package);
    }
    for (const auto& [version, file] : m_tables.Builds()) {
        const auto package = Z_MAKE(ZPackageInfoMsg);
        package->m_Version = version.m_text;
        package->m_File = ToZString(file.string());
        package->m_Source = "archive";
        package->m_Relation = RelationOf(version, m_systemVersion);
        package->m_Board = m_tables.BoardOf(file);
        package->m_Size = SizeOf(file);
        answer->m_Archive.push_back(package);
    }
    for (const Refused& refused : m_refused.Copy()) {
        answer->m_Refused.push_back(refused.told);
    }
    answer->m_TrustedSigners = Config().m_TrustedSigners;
    if (m_trust.IsOn()) {
        const auto signers = m_trust.Signers();
        answer->m_TrustProblem = TrustProblem(signers);
        answer->m_TrustDocument = signers && signers->Document() != nullptr ? signers->Document()->number : 0;
    }
    answer->m_UpdatesFolder = ToZString(m_updatesPath.string());
    answer->m_UpdatesFree = FreeBytes(m_updatesPath);
    answer->m_ArchiveFree = FreeBytes(m_archivePath);
    return PublishResponse(request, answer);
}

void ZNodeArborInstall::KeepRefused(const ZString& version, const ZString& file, const ZError& why,
                                    const std::optional<FileStamp>& stamp) {
    const auto entry = Z_MAKE(ZPackageInfoMsg);
    entry->m_Version = version;
    entry->m_File = file;
    entry->m_Source = IsUpload(fs::path(file)) ? ZString("upload") : ToZString(fs::path(file).parent_path().string());
    entry->m_Reason = ToZString(why.text);
    entry->m_ErrorCode = why.code;
    entry->m_CheckedAt = MillisecondsNow();
    const auto refused = m_refused.Lock();
    std::erase_if(*refused, [&](const auto& other) { return other.told->m_File == file; });
    refused->push_front({entry, stamp});
    if (refused->size() > kMostRefused) {
        refused->pop_back();
    }
}

bool ZNodeArborInstall::IsUpload(const fs::path& file) const {
    return !m_updatesPath.empty() && file.lexically_normal().parent_path() == (m_updatesPath / "").parent_path();
}

bool ZNodeArborInstall::ForgetFile(const fs::path& file) {
    const bool known = m_tables.Forget(file);
    if (known) {
        Z_LOG(2, "Removing package %s", file);
    }
    return known;
}

void ZNodeArborInstall::RemoveRefusedUploads(const ZMessageArray& results) {
    for (const auto& message : results.m_Messages) {
        const auto record = ZCAST(ZVersionInfoMsg, message);
        if (!record || record->m_bSuccess || !IsUpload(fs::path(record->m_VersionType))) {
            continue;
        }
        // Where nothing was found out it may be a good one; a check that was broken off leaves none here. Another file
        // may have come in its place meanwhile.
        const auto isIt = [&](const Refused& entry) {
            return entry.told->m_File == record->m_VersionType && entry.stamp &&
                   entry.told->m_ErrorCode != ZFrameworkErrorCodes::ERRCODE_NONE &&
                   entry.stamp == StampOf(fs::path(entry.told->m_File));
        };
        if (const auto refused = m_refused.Copy(); std::ranges::any_of(refused, isIt)) {
            std::error_code error;
            const bool removed = fs::remove(fs::path(record->m_VersionType), error);
            Z_LOG(2, "The refused upload %s %s", record->m_VersionType,
                  removed ? "was removed" : "could not be removed");
        }
    }
}

bool ZNodeArborInstall::OnForget(const std::shared_ptr<ZMessage>& message) {
    using Codes = ZFrameworkErrorCodes;
    const auto request = ZCAST(ZForgetMsg, message);
    if (!request) {
        return true;
    }
    const auto answer = Z_MAKE(ZGenericResponseMsg);
    const auto refuse = [&](const char* reason, Codes::ZErrorCode code) {
        answer->m_bSuccess = false;
        answer->m_ErrorText = request->m_File + ": " + reason;
        answer->m_ErrorCode = code;
        return PublishResponse(message, answer);
    };
    const fs::path file = (m_updatesPath / fs::path(request->m_File)).lexically_normal();
    std::error_code error;
    const fs::file_status status = fs::symlink_status(file, error);
    if (!IsUpload(file) || !file.has_filename()) {
        return refuse("only a file that was uploaded can be removed", Codes::ERRCODE_INVALID_REQUEST);
    }
    if (!fs::exists(status) || fs::is_directory(status)) {
        return refuse("no such upload", Codes::ERRCODE_NOT_FOUND);
    }
    if (const auto install = m_install.Copy();
        install && install->IsAlive() && fs::path(install->Operation().Get()->m_File) == file) {
        return refuse("it is being installed", Codes::ERRCODE_BUSY);
    }
    if (!fs::remove(file, error)) {
        return refuse(error.message().c_str(), Codes::ERRCODE_NONE);
    }
    Z_LOG(2, "The upload %s was removed", file);
    ForgetFile(file);
    std::erase_if(*m_refused.Lock(), [&](const auto& entry) { return fs::path(entry.told->m_File) == file; });
    PublishResponse(message, answer);
    auto results = Z_MAKE(ZMessageArray);
    CheckAvailableUpdates(results, true);
    return true;
}
