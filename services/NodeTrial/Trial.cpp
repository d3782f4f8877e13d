#include "Trial.h"

#include <algorithm>

#include "ZShared/ZProcess.h"

Trial::Trial(ZBootSettings settings, std::unique_ptr<ZBootControl> control, Rules rules)
    : m_settings(std::move(settings)), m_rules(std::move(rules)), m_control(std::move(control)) {}

ZResult<void> Trial::Begin() {
    const std::lock_guard lock(m_controlMutex);
    auto watch = ZTrialWatch::Hold(m_settings.state);
    if (!watch) {
        SetProblem(watch.error().text);
        return watch.error();
    }
    m_watch.emplace(std::move(*watch));
    const auto action = BeginBoot(m_settings, *m_control);
    if (!action) {
        SetProblem(action.error().text);
        return action.error();
    }
    if (*action == ZBootAction::GoBack) {
        // The start of the boot has not counted, so it did not act either. What it would have done is done when the
        // next boot begins; this host only says so.
        SetProblem("the version that runs has failed and is left at the next restart");
    }
    return {};
}

ZResult<ZSlotVersion> Trial::Running() const {
    const std::lock_guard lock(m_controlMutex);
    return m_control->Running();
}

std::optional<ZSlotVersion> Trial::OnTrial() const {
    const auto running = Running();
    return running && State().IsOnTrial(*running) ? std::optional(*running) : std::nullopt;
}

ZTrialState Trial::State() const {
    const auto state = ZTrialFile(m_settings.state).Read();
    return state ? *state : ZTrialState();
}

void Trial::AskAll(const Ask& ask) {
    std::map<std::string, std::string> failures;
    for (const HealthCheck& check : m_rules.checks) {
        std::string reason;
        if (!ask(check, reason)) {
            failures[check.name] = reason.empty() ? "it does not say why" : reason;
        }
    }
    const auto seen = m_seen.Lock();
    seen->failures = std::move(failures);
    seen->bAsked = true;
    if (FirstFailing(*seen) != nullptr) {
        seen->passingSince.reset();
    } else if (!seen->passingSince) {
        seen->passingSince = ZClock::now();
    }
}

const HealthCheck* Trial::FirstFailing(const Seen& seen) const {
    const auto found = std::ranges::find_if(
        m_rules.checks, [&](const HealthCheck& each) { return each.bMust && seen.failures.contains(each.name); });
    return found == m_rules.checks.end() ? nullptr : &*found;
}

Trial::Verdict Trial::Judge() {
    if (!OnTrial()) {
        return Verdict::Over;
    }
    const std::int64_t boot = MillisecondsOfBoot(State());
    const auto seen = m_seen.Lock();
    if (!seen->veto.empty()) {
        return Verdict::GoBack;
    }
    const bool holds = seen->passingSince && ZClock::now() - *seen->passingSince >= m_rules.hold;
    if (holds && !m_rules.bByPerson) {
        return Verdict::Confirm;
    }
    const bool isLate = m_rules.deadline.count() > 0 && boot > std::chrono::milliseconds(m_rules.deadline).count();
    return isLate && !holds ? Verdict::GoBack : Verdict::Wait;
}

std::pair<std::string, std::string> Trial::Complaint() const {
    const Seen seen = m_seen.Copy();
    if (!seen.veto.empty()) {
        return {seen.veto, {}};
    }
    if (const HealthCheck* const failing = FirstFailing(seen)) {
        return {failing->name + ": " + seen.failures.at(failing->name), failing->name};
    }
    return {"it did not prove itself within " + std::to_string(m_rules.deadline.count()) + " s", {}};
}

std::string Trial::Waiting() const {
    return WaitingFor(m_seen.Copy());
}

std::string Trial::WaitingFor(const Seen& seen) const {
    if (!seen.bAsked) {
        return "its first checks";
    }
    if (const HealthCheck* const failing = FirstFailing(seen)) {
        return failing->name + ": " + seen.failures.at(failing->name);
    }
    if (m_rules.bByPerson) {
        return "somebody who confirms it";
    }
    return "all checks to hold for " + std::to_string(m_rules.hold.count()) + " s";
}

ZResult<void> Trial::Confirm(const std::string& by) {
    const auto running = OnTrial();
    if (!running) {
        return ZError("no version is on trial");
    }
    {
        // First the loader: when the state said so already and the loader did not know, it would go back one day.
        const std::lock_guard lock(m_controlMutex);
        if (const auto good = m_control->MarkGood(); !good) {
            return good.error();
        }
    }
    const auto kept = ZTrialFile(m_settings.state).Change([&](ZTrialState& state) {
        if (state.IsOnTrial(*running)) {
            state.Confirm(by, MillisecondsNow());
        }
    });
    m_news.Set();
    return kept ? ZResult<void>() : kept.error();
}

ZResult<void> Trial::GoBack(const std::string& reason, const std::string& failedCheck) {
    const std::lock_guard lock(m_controlMutex);
    const auto failed = FailTrial(m_settings, *m_control, reason, failedCheck);
    return failed ? Leave(*m_control, *failed) : failed.error();
}

ZResult<void> Trial::UndoSwitch() {
    const std::lock_guard lock(m_controlMutex);
    const auto running = m_control->Running();
    const auto next = running ? m_control->Next() : running;
    if (!next) {
        return next.error();
    }
    if (next->slot == running->slot) {
        return ZError("version " + running->version + " runs, is confirmed, and starts next");
    }
    if (const auto done = m_control->Activate(running->slot, false); !done) {
        return done.error();
    }
    const auto noted = NoteNext(m_settings, *m_control);
    return noted ? ZResult<void>() : noted.error();
}

ZResult<void> Trial::Allow(const std::string& version) {
    bool known = false;
    const auto kept = ZTrialFile(m_settings.state).Change([&](ZTrialState& state) { known = state.Allow(version); });
    if (!kept) {
        return kept.error();
    }
    return known ? ZResult<void>() : ZError("version " + version + " was not taken back");
}

void Trial::Veto(const std::string& reason) {
    m_seen.Lock()->veto = reason.empty() ? "a node says that it does not work" : reason;
    m_news.Set();
}

void Trial::NoteSwitch() {
    const std::lock_guard lock(m_controlMutex);
    if (const auto noted = NoteNext(m_settings, *m_control); !noted) {
        SetProblem(noted.error().text);
    }
}

void Trial::MarkTold(bool isAlike) {
    const auto kept = ZTrialFile(m_settings.state).Change([isAlike](ZTrialState& state) {
        if (!state.last) {
            return;
        }
        state.last->bTold = true;
        state.last->bAlike = state.last->bAlike || isAlike;
        if (isAlike) {
            state.Allow(state.last->version.version);
        }
    });
    if (!kept) {
        SetProblem(kept.error().text);
    }
}

void Trial::SetProblem(const std::string& problem) {
    m_seen.Lock()->problem = problem;
}

std::shared_ptr<ZSlotsMsg> Trial::Tell() const {
    const auto answer = Z_MAKE(ZSlotsMsg);
    const auto state = ZTrialFile(m_settings.state).Read();
    const Seen seen = m_seen.Copy();
    answer->m_Problem = ToZString(state ? seen.problem : state.error().text);
    answer->m_Attempts = m_settings.attempts;
    TellSlots(*answer, state ? *state : ZTrialState());
    if (!state) {
        answer->m_State = "unknown";
        return answer;
    }
    TellWay(*answer, *state);
    TellLast(*answer, *state);
    if (answer->m_State == "trial") {
        answer->m_Waiting = ToZString(WaitingFor(seen));
    }
    for (const HealthCheck& check : m_rules.checks) {
        const auto health = Z_MAKE(ZHealthMsg);
        const auto failure = seen.failures.find(check.name);
        health->m_Name = ToZString(check.name);
        health->m_bMust = check.bMust;
        health->m_bPassed = seen.bAsked && failure == seen.failures.end();
        health->m_Reason = failure == seen.failures.end() ? ZString() : ToZString(failure->second);
        answer->m_Checks.push_back(health);
    }
    return answer;
}

void Trial::TellSlots(ZSlotsMsg& answer, const ZTrialState& state) const {
    const std::lock_guard lock(m_controlMutex);
    const auto running = m_control->Running();
    const auto next = m_control->Next();
    for (const ZSlotVersion& version : m_control->Slots()) {
        const auto slot = Z_MAKE(ZSlotMsg);
        slot->m_Slot = ToZString(version.slot);
        slot->m_Version = ToZString(version.version);
        slot->m_Digest = ToZString(version.digest);
        slot->m_bRunning = running && running->slot == version.slot;
        slot->m_bNext = next && next->slot == version.slot;
        slot->m_bConfirmed = version.SameAs(state.confirmed);
        answer.m_Slots.push_back(slot);
    }
}

void Trial::TellWay(ZSlotsMsg& answer, const ZTrialState& state) const {
    answer.m_State = state.confirmed.IsKnown() ? "confirmed" : "unknown";
    if (state.trial) {
        answer.m_State = ToText(state.trial->stage);
        answer.m_Version = ToZString(state.trial->version.version);
        answer.m_Attempt = state.trial->attempts;
        answer.m_Since = state.trial->since;
    }
    for (const ZTakenBack& entry : state.takenBack) {
        const auto told = Z_MAKE(ZTakenBackMsg);
        told->m_Version = ToZString(entry.version);
        told->m_Digest = ToZString(entry.digest);
        told->m_Reason = ToZString(entry.reason);
        told->m_At = entry.at;
        answer.m_TakenBack.push_back(told);
    }
}

void Trial::TellLast(ZSlotsMsg& answer, const ZTrialState& state) {
    if (state.last) {
        answer.m_LastVersion = ToZString(state.last->version.version);
        answer.m_LastOutcome = state.last->bConfirmed ? "confirmed" : "reverted";
        answer.m_LastReason = ToZString(state.last->reason);
        answer.m_LastAt = state.last->at;
        answer.m_bLastAlike = state.last->bAlike;
    }
}
