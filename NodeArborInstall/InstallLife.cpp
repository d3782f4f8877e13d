#include "InstallLife.h"

#include <sys/wait.h>

#include <algorithm>
#include <iterator>

#include "ZShared/ZDeadline.h"

// Documents that come after the last one are of no account; so is all that comes after the end. What is not listed
// changes nothing.
const InstallLife::Row InstallLife::kTable[] = {
    {Stage::Working, Event::Document, Stage::Working, Effect::Tell},
    {Stage::Working, Event::LastDocument, Stage::Told, Effect::SettleByDocument},
    {Stage::Working, Event::NotStarted, Stage::Over, Effect::Fail},
    {Stage::Working, Event::Ended, Stage::Over, Effect::SettleByEnd},
    {Stage::Told, Event::NotStarted, Stage::Over, Effect::None},
    {Stage::Told, Event::Ended, Stage::Over, Effect::None},
};

InstallLife::Effect InstallLife::Take(Event event) {
    const auto state = m_state.Lock();
    const auto* const row = std::ranges::find_if(
        kTable, [&](const Row& entry) { return entry.stage == state->stage && entry.event == event; });
    if (row == std::end(kTable)) {
        return Effect::None;
    }
    state->stage = row->next;
    if (row->next == Stage::Over) {
        m_over.notify_all();
    }
    return row->effect;
}

void InstallLife::AwaitEndOfTold() {
    constexpr auto kPatience = std::chrono::seconds(3);
    if (!m_operation->IsOpen()) {
        m_state.Lock().WaitUntil(m_over, ZClock::now() + kPatience,
                                 [](const State& state) { return state.stage == Stage::Over; });
    }
}

void InstallLife::OnStarted(const ZProcessId& process) {
    m_state.Lock()->process = process;
    m_operation->SetProcess(process);
}

bool InstallLife::FindInstaller() {
    const auto record = ReadInstallRecord(m_slots);
    if (!record || record->m_Operation != m_operation->Id()) {
        return false;
    }
    const bool isOfThisBoot = record->m_BootId == ToZString(BootId());
    if (const auto process = isOfThisBoot ? FindProcess(record->m_ProcessId) : std::nullopt) {
        OnStarted(*process);
    }
    return true;
}

void InstallLife::OnNotStarted(const ZString& reason, ZFrameworkErrorCodes::ZErrorCode code) {
    if (Take(Event::NotStarted) == Effect::Fail) {
        m_operation->Fail(reason, code);
    }
}

void InstallLife::OnDocument(const InstallProgressMsg& document) {
    switch (Take(document.m_bError || document.m_bDone ? Event::LastDocument : Event::Document)) {
        case Effect::Tell:
            m_operation->Tell(document.m_Header, document.m_Message, document.m_Percent);
            break;
        case Effect::SettleByDocument:
            m_operation->SetStage(document.m_Header, document.m_Message, document.m_Percent);
            SettleByDocument(document);
            break;
        default:
            break;
    }
}

void InstallLife::OnEnded(std::optional<int> waitStatus) {
    if (Take(Event::Ended) == Effect::SettleByEnd) {
        SettleByEnd(waitStatus);
    }
}

void InstallLife::SettleByDocument(const InstallProgressMsg& document) {
    if (!document.m_bError) {
        m_operation->Succeed();
        return;
    }
    FailOrCancel(document.m_Message.empty() ? "the installer reports an error" : ToStdString(document.m_Message));
}

void InstallLife::SettleByEnd(std::optional<int> waitStatus) {
    if (SettleByRecord(waitStatus)) {
        return;
    }
    if (Process().id == 0) {
        m_operation->Lose("the host ended while it ran");
    } else if (!waitStatus) {
        m_operation->Lose("the installer ended while nobody watched it, and left no record of how");
    } else if (WIFEXITED(*waitStatus) && WEXITSTATUS(*waitStatus) == 0) {
        m_operation->Succeed();
    } else {
        FailOrCancel("the installer " + EndOfProcess(*waitStatus));
    }
}

/// Whether the installer left a record of this install.
bool InstallLife::SettleByRecord(std::optional<int> waitStatus) {
    const auto record = ReadInstallRecord(m_slots);
    if (!record || record->m_Operation != m_operation->Id()) {
        return false;
    }
    // One that was ended between the switch and its record has done its work.
    const bool isSwitched = !record->m_Slot.empty() && ToZString(ReadSlots(m_slots).next) == record->m_Slot;
    if (record->m_Outcome == "succeeded" || (record->m_Outcome == "running" && isSwitched)) {
        m_operation->Succeed();
    } else if (record->m_Outcome == "failed") {
        FailOrCancel(ToStdString(record->m_Reason));
    } else if (record->m_Outcome == "cancelled") {
        m_operation->Cancel(record->m_Reason);
    } else if (waitStatus) {
        FailOrCancel("the installer " + EndOfProcess(*waitStatus) + " before it had finished");
    } else if (record->m_BootId != ToZString(BootId())) {
        m_operation->Fail("the device was restarted, or lost its power, before the installer had finished");
    } else {
        FailOrCancel("the installer was ended before it had finished");
    }
    return true;
}

void InstallLife::FailOrCancel(const std::string& reason) {
    if (const auto why = m_operation->CancelReason()) {
        m_operation->Cancel(ToZString("cancelled " + *why));
    } else {
        m_operation->Fail(ToZString(reason));
    }
}
