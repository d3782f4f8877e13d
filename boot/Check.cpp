#include "Check.h"

#include <boost/json.hpp>

#include "ZBoot/ZBootControl.h"
#include "ZBoot/ZTrialFile.h"

namespace json = boost::json;

namespace {

/// Collects what is known and what is wrong.
class Check {
public:
    BootCheck Run(const std::string& file) {
        const auto settings = ZBootSettings::Load(file);
        if (!settings) {
            return Ended("settings", settings.error());
        }
        m_known["control"] = settings->control;
        m_known["slotsFolder"] = settings->slots;
        const auto control = ZBootControl::Make(*settings);
        if (!control) {
            return Ended("settings", control.error().In(file));
        }
        AddSlots(**control);
        AddState(**control, settings->state);
        return Ended();
    }

private:
    void AddSlots(const ZBootControl& control) {
        const auto running = control.Running();
        const auto next = control.Next();
        m_known["running"] = running ? running->slot : "";
        m_known["next"] = next ? next->slot : "";
        if (!running) {
            AddProblem("running", running.error());
        } else if (!running->IsKnown()) {
            AddProblem("running",
                       ZError("slot " + running->slot + " runs, and does not tell which version stands in it"));
        }
        if (!next) {
            AddProblem("next", next.error());
        }
        json::array slots;
        for (const ZSlotVersion& each : control.Slots()) {
            slots.push_back(json::object{{"slot", each.slot}, {"version", each.version}, {"digest", each.digest}});
        }
        m_known["slots"] = std::move(slots);
    }

    void AddState(const ZBootControl& control, const std::string& file) {
        const auto state = ZTrialFile(file).Read();
        if (!state) {
            AddProblem("state", state.error());
            return;
        }
        m_known["state"] = state->trial                 ? ToText(state->trial->stage)
                           : state->confirmed.IsKnown() ? "confirmed"
                                                        : "new";
        m_known["confirmed"] = state->confirmed.slot;
        const bool isWhole = control.IsWhole(state->confirmed);
        m_known["confirmedWhole"] = isWhole;
        if (state->confirmed.IsKnown() && !isWhole) {
            AddProblem("confirmed", ZError("slot " + state->confirmed.slot + " does not hold the confirmed version " +
                                           state->confirmed.version + " any more"));
        }
    }

    void AddProblem(const char* about, const ZError& error) {
        m_problems.push_back(json::object{{"about", about}, {"text", error.text}});
    }
    BootCheck Ended(const char* about, const ZError& error) {
        AddProblem(about, error);
        return Ended();
    }
    BootCheck Ended() {
        const bool isWell = m_problems.empty();
        m_known["problems"] = std::move(m_problems);
        return {.text = json::serialize(m_known), .isWell = isWell};
    }

    json::object m_known;
    json::array m_problems;
};

}  // namespace

BootCheck CheckBoot(const std::string& settingsFile) {
    return Check().Run(settingsFile);
}
