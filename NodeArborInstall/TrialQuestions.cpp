#include <algorithm>

#include "ZNodeArborInstall.h"

// What the trial of the version that runs, and those before it, mean for other versions.

namespace {

constexpr auto kPatience = std::chrono::seconds(15);  // a boot loader's program may be asked meanwhile

}  // namespace

ZResult<std::shared_ptr<ZSlotsMsg>> ZNodeArborInstall::AskSlots() {
    std::shared_ptr<ZMessage> answer;
    const auto outcome = PublishWithOutcome(GetEndpoint(ZEndpointType::GraphService, "slots", 0),
                                            Z_MAKE(ZGenericRequestMsg), &answer, {true, false, kPatience});
    const auto slots = ZCAST(ZSlotsMsg, answer);
    if (!slots) {
        m_bJudgedAlone = true;
    }
    if (!slots && (outcome == ZPublishOutcome::NoAnswer || outcome == ZPublishOutcome::QueueFull)) {
        return ZError("it is not known which versions were taken back: the node that judges them does not answer");
    }
    return slots;
}

ZResult<void> ZNodeArborInstall::MayBeOffered(const ZString& version, const std::string& digest) {
    const auto slots = AskSlots();
    if (!slots) {
        return slots.error();
    }
    if (*slots == nullptr) {
        return {};
    }
    for (const auto& entry : (*slots)->m_TakenBack) {
        const bool byDigest = !entry->m_Digest.empty() && !digest.empty();
        if (byDigest ? ToStdString(entry->m_Digest) == digest
                     : ZSoftwareVersion(entry->m_Version) == ZSoftwareVersion(version)) {
            return ZError("version " + ToStdString(version) + " was taken back (" + ToStdString(entry->m_Reason) +
                              "); it is offered again once somebody allows it",
                          ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED);
        }
    }
    return {};
}

ZResult<void> ZNodeArborInstall::MayBeReplaced() {
    const auto slots = AskSlots();
    if (!slots) {
        return slots.error();
    }
    const bool isOnTrial = *slots && ((*slots)->m_State == "trial" || (*slots)->m_State == "reverting");
    const bool hasWayBack = isOnTrial && std::ranges::any_of((*slots)->m_Slots, [](const auto& slot) {
                                return slot->m_bConfirmed && !slot->m_bRunning;
                            });
    return hasWayBack ? ZError("version " + ToStdString((*slots)->m_Version) +
                               " has not proved itself yet, and an install would write over the way back: confirm it, "
                               "or go back, first")
                      : ZResult<void>();
}

bool ZNodeArborInstall::OnTrial(const std::shared_ptr<ZMessage>& message) {
    const auto trial = ZCAST(ZSlotsMsg, message);
    if (!trial) {
        return true;
    }
    std::vector<ZString> versions;
    for (const auto& entry : trial->m_TakenBack) {
        versions.push_back(entry->m_Version);
    }
    const auto before = m_takenBack.Exchange(versions);
    const bool isNew = before ? *before != versions : !versions.empty();
    if (m_bJudgedAlone.exchange(false) || isNew) {
        RunAction("JudgeAgain", nullptr);
    }
    return true;
}
