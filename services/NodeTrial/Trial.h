#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "HealthCheck.h"
#include "ZBoot/ZBootSteps.h"
#include "ZBoot/ZTrialWatch.h"
#include "ZMessages/TrialMessages.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZWakeUp.h"

/// The trial of the version that runs: what it has to pass, how it goes, and how it ends. Thread-safe.
class Trial {
public:
    struct Rules {
        std::vector<HealthCheck> checks;
        std::chrono::seconds pause{};
        std::chrono::seconds hold{};
        std::chrono::seconds deadline{};  ///< 0: none
        bool bByPerson = false;
    };
    /// What the watch does next.
    enum class Verdict : std::uint8_t { Wait, Confirm, GoBack, Over };
    /// Asks a check; false, with the reason, when it did not pass.
    using Ask = std::function<bool(const HealthCheck& check, std::string& reason)>;

    Trial(ZBootSettings settings, std::unique_ptr<ZBootControl> control, Rules rules);

    /// Counts this boot, unless its start has done that, and tells others that somebody judges. An error says why no
    /// version can be judged; it is told as the problem from then on.
    ZResult<void> Begin();
    /// Nobody judges from here on: others may.
    void StopJudging();
    bool IsJudged() const;
    /// The version that has to prove itself, or failed to and was not left yet; none when that is no question. An error
    /// when it can't be known now.
    ZResult<std::optional<ZSlotVersion>> OnTrial() const;
    const Rules& Asked() const { return m_rules; }
    const ZBootSettings& Settings() const { return m_settings; }
    /// The state as it is kept; an empty one when it can't be read.
    ZTrialState State() const;

    /// Asks every check once.
    void AskAll(const Ask& ask);
    /// What follows from what was asked, said and vetoed so far.
    Verdict Judge();
    /// Why it is to go back: the veto, or what has not passed in time.
    ZTrialFault Complaint() const;
    /// What is missing until it is confirmed, as a sentence.
    std::string Waiting() const;

    /// The version has proved itself; `by` says how. Kept, and told to the boot loader.
    ZResult<void> Confirm(const std::string& by);
    /// The version failed, or had: the one before starts next. The caller restarts the device.
    ZResult<void> GoBack(const ZTrialFault& fault);
    /// Undoes a switch that had no restart yet; only the confirmed version may.
    ZResult<void> UndoSwitch();
    ZResult<void> Allow(const std::string& version);
    void Veto(const std::string& reason);
    /// Another version may start next: it was installed.
    void NoteSwitch();
    /// How the last trial ended is in the journal.
    void MarkTold();
    /// The version before was asked what the last one failed, and failed it too if `isAlike`.
    void MarkJudged(bool isAlike);
    void SetProblem(const std::string& problem);
    /// Set when somebody has said something that may end the trial; the watch clears it.
    ZWakeUp& News() { return m_news; }

    std::shared_ptr<ZSlotsMsg> Tell() const;

private:
    struct Seen {
        std::map<std::size_t, std::string> failures;  // of checks, by their place: why they did not pass
        bool bAsked = false;
        bool bHeld = false;  // all that must pass has passed for long enough, once
        std::optional<ZClock::time_point> passingSince;
        std::optional<ZClock::time_point> failingSince;
        std::string veto;
        std::string problem;
        std::string blindness;  // why nothing can be judged just now
    };
    struct Look {
        ZTrialState state;
        ZSlotVersion running;
    };
    void TellSlots(ZSlotsMsg& answer, const ZTrialState& state) const;
    void TellWay(ZSlotsMsg& answer, const ZTrialState& state) const;
    static void TellCounts(ZSlotsMsg& answer, const ZTrialCounts& counts);
    static void TellLast(ZSlotsMsg& answer, const ZTrialState& state);
    std::string WaitingFor(const Seen& seen) const;
    /// The place of the first check that must pass and does not; none when all do.
    std::optional<std::size_t> FirstFailing(const Seen& seen) const;
    Verdict JudgeChecks(Seen& seen, std::int64_t boot) const;
    ZResult<Look> LookNow() const;
    void ChangeLast(const std::function<void(ZTrialState&)>& change);

    const ZBootSettings m_settings;
    const Rules m_rules;
    mutable std::mutex m_controlMutex;
    std::unique_ptr<ZBootControl> m_control;  // guarded by m_controlMutex
    std::optional<ZTrialWatch> m_watch;
    ZGuarded<Seen> m_seen;
    ZWakeUp m_news;
};
