#include <algorithm>

#include "PackageFiles.h"
#include "ShellText.h"
#include "TransientUnit.h"
#include "ZNodeArborInstall.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZStopEvent.h"

namespace fs = std::filesystem;

namespace {

// Far beyond any version; what is longer is a flood that began with a number.
constexpr std::size_t kLongestVersion = std::size_t{64} * 1024;
// Of what a package says of itself, in a reason that people read.
constexpr std::size_t kShownOutput = 500;

constexpr auto kInvalid = ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE;

ZError Invalid(const std::string& reason) {
    return ZError(reason, kInvalid);
}

}  // namespace

ZNodeArborInstall::QueuedCheck ZNodeArborInstall::QueueCheck(const fs::path& file,
                                                             const std::shared_ptr<ZMessageArray>& results,
                                                             const ZOperationSubject& subject,
                                                             const ZMessage* request) {
    EndChecksOfFile(file);
    const auto operation = BeginOperation(subject, request);
    const CheckOrder order{operation, ++m_checkOrder, IsUpload(file) ? StampOf(file) : std::nullopt};
    auto done = m_checks.Add([this, file, results, order] {
        ZOperation& job = *order.operation;
        if (const auto why = job.CancelReason()) {
            job.Cancel(ToZString("cancelled " + *why));
            return false;
        }
        job.Start();
        const ZStopScope scope(job.CancelEvent());
        auto found = results;
        return CheckPackage(file, found, order);
    });
    return {operation, std::move(done)};
}

bool ZNodeArborInstall::CheckNow(const fs::path& file, std::shared_ptr<ZMessageArray>& results,
                                 const ZMessage* request) {
    const ZOperationSubject subject{.kind = ZOperationKind::Check, .file = ToZString(file.string())};
    return QueueCheck(file, results, subject, request).done.get();
}

void ZNodeArborInstall::EndChecksOfFile(const fs::path& file) {
    for (const auto& operation : Operations()) {
        if (operation->Kind() == ZOperationKind::Check && fs::path(operation->File()) == file) {
            operation->AskToCancel("because the file is checked again");
        }
    }
    std::erase_if(*m_refused.Lock(), [&](const auto& entry) { return fs::path(entry.told->m_File) == file; });
}

bool ZNodeArborInstall::CheckPackageFile(const fs::path& file, std::shared_ptr<ZMessageArray>& results) {
    const ZOperationSubject subject{.kind = ZOperationKind::Check, .file = ToZString(file.string())};
    const CheckOrder order{BeginOperation(subject), ++m_checkOrder, std::nullopt};
    order.operation->Start();
    return CheckPackage(file, results, order);
}

/// One check under way.
struct ZNodeArborInstall::PackageCheck {
    const fs::path& file;
    ZOperation& operation;
    ZClock::time_point deadline;
    std::optional<PackageTrust::Approved> approved;  // with a trust policy, once the file was read

    std::chrono::milliseconds Left() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - ZClock::now());
        return std::max(left, std::chrono::milliseconds(1));
    }
};

bool ZNodeArborInstall::RunCheck(const PackageCheck& check, const std::string& arguments, std::string& output) {
    const auto limit = std::chrono::seconds(Config().m_CheckTimeoutSeconds);
    const std::string plain = ShellEscape(check.file.string()) + arguments;
    std::string line = check.approved ? m_trust.Command(check.file, arguments, *check.approved, limit) : plain;
    const auto unit = TransientUnit::ForCheck(limit);
    if (unit) {
        line = unit->CommandLine(line);
    }
    const bool isGood = ZPlatform::ExecuteCommand(line, output, check.Left(), plain);
    const ZStopEvent* const stop = ZStopEvent::OfThisThread();
    if (unit && (ZClock::now() >= check.deadline || (stop != nullptr && stop->IsSet()))) {
        unit->End();  // who waited for it was ended, it was not
    }
    return isGood;
}

ZResult<PackageTrust::Approved> ZNodeArborInstall::Approve(const fs::path& file, std::chrono::milliseconds limit) {
    if (!m_systemVersion.m_valid && !Config().m_bAllowDowngrades) {
        return ZError("the installed version is not known, so any package may be an older one");
    }
    auto opened = m_trust.Open(file, limit);
    if (!opened) {
        return opened.error();
    }
    if (const auto chain = ZTrustChain::Parse(opened->package.trust); chain && m_trust.IsNewer(*chain)) {
        FollowChain(chain, file.string());
    }
    opened->package.trust.clear();  // what could not be put into force does not count for this package either
    return m_trust.Approve(std::move(*opened), ToStdString(m_board));
}

bool ZNodeArborInstall::CheckPackage(const fs::path& file, std::shared_ptr<ZMessageArray>& results,
                                     const CheckOrder& order) {
    ZOperation& operation = *order.operation;
    static_cast<void>(m_trust.CanConfine());  // what is waited for that is not of the package's own time
    PackageCheck check{file, operation, ZClock::now() + std::chrono::seconds(Config().m_CheckTimeoutSeconds), {}};
    const ZString path = ToZString(file.string());
    if (m_trust.IsOn()) {
        auto approved = Approve(file, check.Left());
        if (!approved) {
            if (!operation.CancelReason()) {
                Z_LOG(4, "Verification failed on %s: %s", path, approved.error().text);
            }
            Refuse(results, "unknown", file, approved.error(), order);
            return false;
        }
        check.approved.emplace(std::move(*approved));
    }
    std::string output;
    if (!RunCheck(check, " --version", output)) {
        Z_LOG(4, "Execute command %s failed: %s", ShellEscape(file.string()) + " --version", output);
        Refuse(results, "unknown", file, Invalid("it does not tell its version: " + output), order);
        return false;
    }
    ZSoftwareVersion version;
    version.Set(ToZString(output));
    const bool isAnother = check.approved && output != check.approved->package.version;
    if (!version.m_valid || output.size() > kLongestVersion || isAnother) {
        Z_LOG(4, "File <%s> Invalid package <%s>", path, output);
        Refuse(
            results, "unknown", file,
            Invalid((isAnother ? "it does not tell the version that was signed: " : "what it tells is no version: ") +
                    output.substr(0, kShownOutput)),
            order);
        return true;
    }
    operation.SetVersion(version.m_text);
    return FinishCheck(check, version, results, order);
}

bool ZNodeArborInstall::FinishCheck(const PackageCheck& check, const ZSoftwareVersion& version,
                                    std::shared_ptr<ZMessageArray>& results, const CheckOrder& order) {
    const fs::path& file = check.file;
    const ZString path = ToZString(file.string());
    std::string output;
    if (!VerifyPackageFile(check, version, output)) {
        Z_LOG(4, "Verification failed on %s: %s", path, output);
        Refuse(results, version.m_text, file, Invalid(output), order);
        return false;
    }
    if (!IsVersionAllowed(version, file)) {
        Refuse(results, version.m_text, file,
               ZError("it is older than the installed version " + ToStdString(m_systemVersion.m_text),
                      ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED),
               order);
        return true;
    }
    const std::string digest = check.approved ? ImageDigest(check.approved->package) : std::string();
    if (const auto good = MayBeOffered(version.m_text, digest); !good) {
        Z_LOG(3, "Package %s is not offered: %s", path, good.error().text);
        Refuse(results, version.m_text, file, good.error(), order);
        return true;
    }
    if (!RecordPackage(check, version, order)) {
        Z_LOG(4, "File <%s> went away while it was checked", path);
        Refuse(results, version.m_text, file, Invalid("it went away while it was checked"), order);
        return true;
    }
    // Another trust document may have come into force meanwhile, when this one was not known yet.
    if (const auto good =
            check.approved ? m_trust.Judge(check.approved->package, ToStdString(m_board)) : ZResult<void>();
        !good) {
        Z_LOG(4, "Verification failed on %s: %s", path, good.error().text);
        Refuse(results, version.m_text, file, good.error(), order);
        return false;
    }
    check.operation.Succeed();
    return true;
}

void ZNodeArborInstall::Refuse(std::shared_ptr<ZMessageArray>& results, const ZString& version, const fs::path& file,
                               const ZError& why, const CheckOrder& order) {
    ZOperation& operation = *order.operation;
    const ZString path = ToZString(file.string());
    const auto cancelled = operation.CancelReason();
    // Under a policy nothing is told of a file whose check was broken off.
    if (!cancelled || !m_trust.IsOn()) {
        const bool isFoundOut = why.code != ZFrameworkErrorCodes::ERRCODE_NONE;
        AddInvalidPackage(results, version, path, isFoundOut ? why.code : kInvalid);
    }
    if (cancelled) {
        operation.Cancel(ToZString("cancelled " + *cancelled));
        return;  // nothing was found out about the file
    }
    const std::string text = why.text.empty() ? "it was not accepted, and does not say why" : why.text;
    const ZError told(text.substr(0, kShownOutput), why.code);
    ForgetFile(file);
    KeepRefused(version, path, told,
                order.stamp);  // first: whoever judges again looks at what is checked, and then at these
    operation.Fail(ToZString(told.text), told.code);
}

bool ZNodeArborInstall::VerifyPackageFile(const PackageCheck& check, const ZSoftwareVersion& version,
                                          std::string& output) {
    const std::string escaped = ShellEscape(check.file.string());
    Z_LOG(2, "Verify File <%s> Version <%s> Board <%s>", escaped, version.Get(), m_board);
    // The board stands unquoted in the command line: one that a shell would read as more than a word is not passed on.
    if (!IsPlainShellWord(m_board, true)) {
        output = "the board's name can't stand in a command line";
        return false;
    }
    return RunCheck(check, " --verify " + ToStdString(m_board), output);
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

bool ZNodeArborInstall::RecordPackage(const PackageCheck& check, const ZSoftwareVersion& version,
                                      const CheckOrder& order) {
    const fs::path& file = check.file;
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    if (error) {
        return false;
    }
    const std::string signer = check.approved ? ZTrustedSigners::SignerName(check.approved->package) : std::string();
    std::optional<VersionTables::PackageTable::value_type> erased;
    const auto isWanted = [&order] { return !order.operation->CancelReason().has_value(); };
    if (m_tables.RecordPackage({version, file, order.order, static_cast<std::int64_t>(size), signer}, isWanted,
                               erased) == VersionTables::Recorded::Gone) {
        return false;
    }
    if (erased) {
        Z_LOG(2, "Erasing duplicate package file %s version %s", erased->second, erased->first.Get());
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
