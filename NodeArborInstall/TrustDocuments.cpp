#include <unistd.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <set>

#include "PackageFiles.h"
#include "ZMessages/TrustMessages.h"
#include "ZNodeArborInstallActions.h"
#include "ZShared/ZCommandRunner.h"

// Who is trusted: trust documents that packages, drives, uploads and people bring, and what is told of the one in
// force.

namespace fs = std::filesystem;

Z_IMPLEMENT(ZNodeArborInstall_JudgeAgainAction)

namespace {

// One more than a chain may have: what is longer is refused for its length.
constexpr ZSnapshotSize kRead{.begin = ZTrustChain::kLargest + 2, .end = 0};

constexpr std::chrono::seconds kAnswerPatience{1};  // of an answer for what is known in a moment, mostly

ZResult<ZTrustChain> ReadChain(const fs::path& file) {
    const auto snapshot = SnapshotFile(file.string(), kRead, kReadPatience);
    if (!snapshot) {
        return snapshot.error();
    }
    std::string text(kRead.begin, '\0');
    const ssize_t count = ::pread(snapshot->copy.Get(), text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return ZTrustChain::Parse(text);
}

std::shared_ptr<ZTrustKeyMsg> KeyMessage(const ZTrustKey& key) {
    auto message = Z_MAKE(ZTrustKeyMsg);
    message->m_Id = ToZString(key.id);
    message->m_Name = ToZString(key.name);
    for (const ZTrustRole role : key.roles) {
        message->m_Roles.push_back(ToText(role));
    }
    for (const std::string& board : key.boards) {
        message->m_Boards.push_back(ToZString(board));
    }
    return message;
}

void Tell(const ZTrustDocument& document, ZTrustMsg& answer) {
    answer.m_Number = document.number;
    answer.m_Expires = ToZString(document.expires);
    answer.m_SecurityFloor = document.securityFloor;
    answer.m_TrustThreshold = document.Threshold(ZTrustRole::Trust);
    answer.m_ReleaseThreshold = document.Threshold(ZTrustRole::Release);
    answer.m_DevelopmentThreshold = document.Threshold(ZTrustRole::Development);
    for (const ZTrustKey& key : document.keys) {
        answer.m_Keys.push_back(KeyMessage(key));
    }
    for (const std::string& digest : document.revoked) {
        answer.m_Revoked.push_back(ToZString(digest));
    }
}

}  // namespace

ZResult<std::optional<std::uint32_t>> ZNodeArborInstall::FollowChain(const ZResult<ZTrustChain>& chain,
                                                                     const std::string& source) {
    if (!m_trust.IsOn()) {
        return ZError("no trusted signers are configured, so there is nothing to follow");
    }
    auto followed = chain ? m_trust.Follow(*chain) : chain.error();
    if (!followed) {
        Z_LOG(3, "The trust document of %s is not followed: %s", source, followed.error().text);
    } else if (*followed) {
        Z_LOG(2, "Trust document %u of %s is in force", **followed, source);
        RunAction("JudgeAgain", nullptr);
    }
    return followed;
}

bool ZNodeArborInstall::FollowFile(const fs::path& file, const ZOperationSubject& subject, const ZMessage* request) {
    std::error_code error;
    if (!m_trust.IsOn() || !fs::is_regular_file(fs::symlink_status(file, error))) {
        return false;
    }
    const auto operation = BeginOperation(subject, request);
    operation->Start();
    const auto followed = FollowChain(ReadChain(file), file.string());
    if (!followed) {
        operation->Fail(ToZString(followed.error().text));
    } else {
        operation->SetVersion(*followed ? ToZString(std::to_string(**followed)) : ZString());
        operation->Succeed();
    }
    return true;
}

bool ZNodeArborInstall::OnApplyTrust(const std::shared_ptr<ZMessage>& message) {
    const auto request = ZCAST(ZTrustChainMsg, message);
    if (!request) {
        return true;
    }
    const auto operation = BeginOperation({.kind = ZOperationKind::Trust}, message.get());
    operation->Start();
    const auto chain = ZTrustChain::Parse(std::string_view(request->m_Chain));
    const auto followed = FollowChain(chain, ToStdString(operation->Get()->m_Asker));
    const auto answer = Z_MAKE(ZGenericResponseMsg);
    answer->m_bSuccess = followed.has_value();
    if (!followed) {
        answer->m_ErrorText = ToZString(followed.error().text);
        answer->m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST;
        operation->Fail(answer->m_ErrorText, answer->m_ErrorCode);
    } else {
        answer->m_ErrorText = *followed ? "trust document " + ToZString(std::to_string(**followed)) + " is in force"
                                        : ZString("its last trust document is in force already");
        operation->SetVersion(*followed ? ToZString(std::to_string(**followed)) : ZString());
        operation->Succeed();
    }
    return PublishResponse(message, answer);
}

ZString ZNodeArborInstall::TrustProblem(const ZResult<ZTrustedSigners>& signers) const {
    if (!signers) {
        return "no package is accepted: " + ToZString(signers.error().text);
    }
    if (!m_trust.KnowsConfining(kAnswerPatience)) {
        return "no package is accepted yet: whether checks can be confined is being tried";
    }
    return ConfinementProblem(m_trust.CanConfine());
}

ZString ZNodeArborInstall::ConfinementProblem(const ZResult<void>& confined) const {
    if (confined) {
        return {};
    }
    const bool goesOn = m_pConfig->m_bUnconfinedChecks;
    return (goesOn ? "packages are checked without being confined: " : "no package is accepted: ") +
           ToZString(confined.error().text);
}

bool ZNodeArborInstall::OnTrust(const std::shared_ptr<ZMessage>& request) {
    const auto answer = Z_MAKE(ZTrustMsg);
    answer->m_TrustedSigners = Config().m_TrustedSigners;
    answer->m_bDevelopment = Config().m_bAcceptDevelopment;
    if (m_trust.IsOn()) {
        const auto signers = m_trust.Signers();
        answer->m_Problem = TrustProblem(signers);
        if (signers && signers->Document() != nullptr) {
            Tell(*signers->Document(), *answer);
        }
    }
    return PublishResponse(request, answer);
}

void ZNodeArborInstall::JudgeAgain(std::shared_ptr<ZMessageArray>& results) {
    std::set<fs::path> files;
    for (const VersionTables::Place& place : m_tables.Places()) {
        files.insert(place.file);
    }
    for (const auto& refused : m_refused.Copy()) {
        files.emplace(refused.told->m_File);
    }
    std::deque<std::pair<std::future<bool>, std::shared_ptr<ZMessageArray>>> checks;
    const auto await = [&](std::size_t left) {
        for (; checks.size() > left; checks.pop_front()) {
            checks.front().first.wait();
            for (const auto& message : checks.front().second->m_Messages) {
                results->Add(message);
            }
        }
    };
    for (const fs::path& file : files) {
        if (InShutdown()) {
            break;
        }
        if (IsBeingChecked(file)) {
            continue;  // its check sees the new document
        }
        const auto found = Z_MAKE(ZMessageArray);
        const ZOperationSubject subject{.kind = ZOperationKind::Check, .file = ToZString(file.string())};
        checks.emplace_back(QueueCheck(file, found, subject, nullptr).done, found);
        await(1);  // others' need places in the queue, too
    }
    await(0);
    ForgetGone(files);
}

bool ZNodeArborInstall::IsBeingChecked(const fs::path& file) const {
    const auto operations = Operations();
    return std::ranges::any_of(operations, [&](const auto& operation) {
        return operation->Kind() == ZOperationKind::Check && fs::path(operation->File()) == file;
    });
}

/// What was refused because its drive went while it was checked again.
void ZNodeArborInstall::ForgetGone(const std::set<fs::path>& files) {
    std::set<fs::path> gone;
    std::ranges::copy_if(files, std::inserter(gone, gone.end()), [](const fs::path& file) {
        const auto exists = ExistsWithin(file.string(), kReadPatience);
        return exists && !*exists;
    });
    std::erase_if(*m_refused.Lock(), [&](const auto& entry) { return gone.contains(fs::path(entry.told->m_File)); });
}

bool ZNodeArborInstall_JudgeAgainAction::Work() {
    auto results = Z_MAKE(ZMessageArray);
    Node().JudgeAgain(results);
    const auto told = ZCAST(ZMessageArray, ZNodeComm::CloneMessage(results));
    Node().CheckAvailableUpdates(results, true);
    Node().RemoveRefusedUploads(*told);
    return true;
}
