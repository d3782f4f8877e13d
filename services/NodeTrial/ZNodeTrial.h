#pragma once

#include <memory>

#include "NodeBase/ZNode.h"
#include "NodeBase/ZNodeAction.h"
#include "Trial.h"
#include "ZMessages/TrialMessages.h"

class ZNodeTrialCfg : public ZConfig {
    Z_MESSAGE(ZNodeTrialCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_BootSettings = "/etc/arbor/boot.json";
    ZString m_Manifest = "/etc/arbor/Manifest.json";
    ZVector<ZString> m_Checks;
    std::uint32_t m_PauseSeconds = 5;
    std::uint32_t m_HoldSeconds = 30;
    std::uint32_t m_DeadlineSeconds = 600;
    bool m_bConfirmByPerson = false;

    std::vector<ZSettingError> Conflicts() const override;

    Z_FIELDS(
        Z_FIELD(m_BootSettings).Path().Means("The file that says how the device boots."),
        Z_FIELD(m_Manifest)
            .Path()
            .Means("The installed system's manifest; its list \"healthChecks\" holds checks of "
                   "the version's own."),
        Z_FIELD(m_Checks)
            .Checked([](std::string_view text) { return HealthCheck::Parse(text).has_value(); },
                     "\"must|should NAME SECONDS COMMAND\", or with \"request TYPE:KEYWORD\" as the command")
            .Means("What a version has to pass on this device to prove itself.",
                   R"(["must measures 20 /usr/libexec/selftest"])"),
        Z_FIELD(m_PauseSeconds).In(1, 3600).Means("Between two rounds of checks."),
        Z_FIELD(m_HoldSeconds).In(0, 86'400).Means("So long all that must pass has to pass, round after round."),
        Z_FIELD(m_DeadlineSeconds)
            .In(0, 604'800)
            .Means("So long after the start of the boot a version must have proved itself; else the device goes back. "
                   "0: it has all the time that it needs."),
        Z_FIELD(m_bConfirmByPerson)
            .Means("Whether a version that passes waits for a person's word. It fails by itself all the same."))
};

/// Judges a version on its first starts: confirms it once it has proved itself, goes back to the one before when it
/// does not, and tells how that went. Where nothing is on trial it only answers.
class ZNodeTrial : public ZNode {
    Z_CLASS(ZNodeTrial, ZNode)
public:
    explicit ZNodeTrial(const ZString& name);

    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    bool OnGraphCreated() override;

    // For the action.
    std::shared_ptr<ZOperation> Begin(const ZSlotVersion& version);
    Trial& Judged() { return *m_trial; }
    void TellChange();
    bool Passes(const HealthCheck& check, std::string& reason);

private:
    bool OnSlots(const std::shared_ptr<ZMessage>& request);
    bool OnConfirm(const std::shared_ptr<ZMessage>& request);
    bool OnRevert(const std::shared_ptr<ZMessage>& request);
    bool OnAllow(const std::shared_ptr<ZMessage>& request);
    bool OnVeto(const std::shared_ptr<ZMessage>& message);
    bool OnOperation(const std::shared_ptr<ZMessage>& message);
    bool Answer(const std::shared_ptr<ZMessage>& request, const ZResult<void>& done);

    std::unique_ptr<Trial> m_trial;
    std::string m_bootSettings;
};

/// Watches over the trial of this boot, from its first check to its end.
class ZNodeTrial_JudgeAction : public ZNodeAction {
    Z_CLASS(ZNodeTrial_JudgeAction, ZNodeAction)
public:
    bool ActionThread() override;

private:
    void TellLast();
    void JudgeFault();
    void Watch(ZOperation& operation, const ZSlotVersion& version);
    void Confirm(const ZSlotVersion& version);
    void TellEnd(ZOperation& operation, const ZSlotVersion& version);
    bool Leave(ZOperation& operation, const ZSlotVersion& version);
    ZNodeTrial& Node() const { return static_cast<ZNodeTrial&>(*m_pNode); }
};
