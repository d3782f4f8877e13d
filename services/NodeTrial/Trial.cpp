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
    if (const auto counted = BeginBoot(m_settings, *m_control); !counted) {
        SetProblem(counted.error().text);
        m_watch.reset();
        return counted.error();
    }
    return {};
}

void Trial::StopJudging() {
    const std::lock_guard lock(m_controlMutex);
    m_watch.reset();
}

bool Trial::IsJudged() const {
    const std::lock_guard lock(m_controlMutex);
    return m_watch.has_value();
}

ZResult<Trial::Look> Trial::LookNow() const {
    const std::lock_guard lock(m_controlMutex);
    const auto running = m_control->Running();
    if (!running) {
        return running.error();
    }
    const auto state = ZTrialFile(m_settings.state).Read();
    return state ? ZResult<Look>(Look{.state = *state, .running = *running}) : state.error();
}

ZResult<std::optional<ZSlotVersion>> Trial::OnTrial() const {
    const auto look = LookNow();
    if (!look) {
        return look.error();
    }
    return look->state.IsOnTrial(look->running) ? std::optional(look->running) : std::nullopt;
}

ZTrialState Trial::State() const {
    const auto state = ZTrialFile(m_settings.state).Read();
    return state ? *state : ZTrialState();
}

void Trial::AskAll(const Ask& ask) {
    std::map<std::size_t, std::string> failures;
    for (std::size_t place = 0; place < m_rules.checks.size(); ++place) {
        std::string reason;
        if (!ask(m_rules.checks[place], reason)) {
            failures[place] = reason.empty() ? "it does not say why" : reason;
        }
        if (!m_seen.Lock()->veto.empty()) {
            return;  // whoever said that need not wait for the rest
        }
    }
    const auto seen = m_seen.Lock();
    seen->failures = std::move(failures);
    seen->bAsked = true;
    const bool fails = FirstFailing(*seen).has_value();
    auto& begun = fails ? seen->failingSince : seen->passingSince;
    (fails ? seen->passingSince : seen->failingSince).reset();
    begun = begun.value_or(ZClock::now());
}

std::optional<std::size_t> Trial::FirstFailing(const Seen& seen) const {
    const auto found =
        std::ranges::find_if(seen.failures, [&](const auto& each) { return m_rules.checks[each.first].bMust; });
    return found == seen.failures.end() ? std::nullopt : std::optional(found->first);
}

Trial::Verdict Trial::Judge() {
    const auto look = LookNow();
    const auto seen = m_seen.Lock();
    seen->blindness = look ? std::string() : look.error().text;
    if (!look) {
        return Verdict::Wait;
    }
    if (!look->state.IsOnTrial(look->running)) {
        return Verdict::Over;
    }
    if (look->state.trial->stage == ZTrialStage::Reverting) {
        return look->state.IsLeaving() || !seen->veto.empty() ? Verdict::GoBack : Verdict::Wait;
    }
    return JudgeChecks(*seen, MillisecondsOfBoot(look->state));
}

Trial::Verdict Trial::JudgeChecks(Seen& seen, std::int64_t boot) const {
    if (!seen.veto.empty()) {
        return Verdict::GoBack;
    }
    const auto lasts = [&](const std::optional<ZClock::time_point>& since) {
        return since && ZClock::now() - *since >= m_rules.hold;
    };
    if (lasts(seen.passingSince)) {
        seen.bHeld = true;
        return m_rules.bByPerson ? Verdict::Wait : Verdict::Confirm;
    }
    const bool isLate = m_rules.deadline.count() > 0 && boot > std::chrono::milliseconds(m_rules.deadline).count();
    // One that has proved itself, and waits for a person, is not left for a moment's trouble.
    return isLate && (!seen.bHeld || lasts(seen.failingSince)) ? Verdict::GoBack : Verdict::Wait;
}

ZTrialFault Trial::Complaint() const {
    const Seen seen = m_seen.Copy();
    if (!seen.veto.empty()) {
        return {seen.veto};
    }
    if (const auto failing = FirstFailing(seen)) {
        const std::string& name = m_rules.checks[*failing].name;
        return {name + ": " + seen.failures.at(*failing), ZTrialCause::Check, name};
    }
    return {"it did not prove itself within " + std::to_string(m_rules.deadline.count()) + " s", ZTrialCause::Late};
}

std::string Trial::Waiting() const {
    return WaitingFor(m_seen.Copy());
}

std::string Trial::WaitingFor(const Seen& seen) const {
    if (!seen.bAsked) {
        return "its first checks";
    }
    if (const auto failing = FirstFailing(seen)) {
        return m_rules.checks[*failing].name + ": " + seen.failures.at(*failing);
    }
    if (m_rules.bByPerson) {
        return "somebody who confirms it";
    }
    return "all checks to hold for " + std::to_string(m_rules.hold.count()) + " s";
}

ZResult<void> Trial::Confirm(const std::string& by) {
    const auto running = OnTrial();
    if (!running || !*running) {
        return running ? ZError("no version is on trial") : running.error();
    }
    const std::lock_guard lock(m_controlMutex);
    // First the loader: when the state said so already and the loader did not know, it would go back one day.
    if (const auto next = m_control->Next(); !next || next->slot != (*running)->slot) {
        if (const auto stays = m_control->Activate((*running)->slot, false); !stays) {
            return stays.error();
        }
    }
    if (const auto good = m_control->MarkGood(); !good) {
        return good.error();
    }
    bool confirmed = false;
    const auto kept = ZTrialFile(m_settings.state).Change([&](ZTrialState& state) {
        if (state.IsOnTrial(**running)) {
            state.Confirm(by, MillisecondsNow());
            confirmed = true;
        }
    });
    m_news.Set();
    if (!kept) {
        return kept.error();
    }
    return confirmed ? ZResult<void>() : ZError("no version is on trial any more");
}

ZResult<void> Trial::GoBack(const ZTrialFault& fault) {
    const std::lock_guard lock(m_controlMutex);
    const auto failed = FailTrial(m_settings, *m_control, fault);
    return failed ? Leave(m_settings, *m_control) : failed.error();
}

ZResult<void> Trial::UndoSwitch() {
    const std::lock_guard lock(m_controlMutex);
    const auto running = m_control->Running();
    const auto next = running ? m_control->Next() : running;
    if (!next) {
        return next.error();
    }
    if (!State().confirmed.SameAs(*running)) {
        return ZError("version " + running->version + " runs, and is not confirmed");
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

void Trial::MarkTold() {
    ChangeLast([](ZTrialState& state) { state.last->bTold = true; });
}

void Trial::MarkJudged(bool isAlike) {
    ChangeLast([isAlike](ZTrialState& state) {
        state.last->bJudged = true;
        state.last->bAlike = isAlike;
        if (isAlike) {
            state.Allow(state.last->version.version);
        }
    });
}

void Trial::ChangeLast(const std::function<void(ZTrialState&)>& change) {
    const auto kept = ZTrialFile(m_settings.state).Change([&](ZTrialState& state) {
        if (state.last) {
            change(state);
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
    auto answer = Z_MAKE(ZSlotsMsg);
    const auto state = ZTrialFile(m_settings.state).Read();
    const Seen seen = m_seen.Copy();
    answer->m_Problem = ToZString(!state ? state.error().text : seen.blindness.empty() ? seen.problem : seen.blindness);
    answer->m_Attempts = m_settings.attempts;
    TellSlots(*answer, state ? *state : ZTrialState());
    if (!state) {
        answer->m_State = "unknown";
        return answer;
    }
    TellWay(*answer, *state);
    TellCounts(*answer, state->counts);
    TellLast(*answer, *state);
    if (answer->m_State == "trial") {
        answer->m_Waiting = ToZString(WaitingFor(seen));
    }
    for (std::size_t place = 0; place < m_rules.checks.size(); ++place) {
        const HealthCheck& check = m_rules.checks[place];
        const auto health = Z_MAKE(ZHealthMsg);
        const auto failure = seen.failures.find(place);
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

void Trial::TellCounts(ZSlotsMsg& answer, const ZTrialCounts& counts) {
    const auto tell = [&answer](const char* what, std::uint64_t count) {
        const auto told = Z_MAKE(ZTrialCountMsg);
        told->m_What = what;
        told->m_Count = count;
        answer.m_Counts.push_back(told);
    };
    tell("begun", counts.begun);
    tell("confirmed", counts.confirmed);
    for (std::size_t cause = 0; cause < counts.takenBack.size(); ++cause) {
        tell(ToText(static_cast<ZTrialCause>(cause)), counts.takenBack.at(cause));
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
