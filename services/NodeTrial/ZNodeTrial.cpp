#include "ZNodeTrial.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <stdexcept>

#include "ZMessages/OperationMessages.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZScopeEnd.h"
#include "ZShared/ZStopEvent.h"

Z_IMPLEMENT(ZNodeTrialCfg)
Z_IMPLEMENT(ZNodeTrial)
Z_IMPLEMENT(ZNodeTrial_JudgeAction)

namespace {

// How long the version before is asked what the last one failed, where no deadline is set.
constexpr std::chrono::minutes kUsualDeadline{10};
// How long a restart may take to end this host.
constexpr std::chrono::minutes kRestartPatience{2};

ZString AskerOf(const ZMessage& message) {
    const auto& origin = message.Origin();
    return origin && !origin->asker.empty() ? ToZString(origin->asker) : ZString("a node");
}

/// Waits, until there are news at most; false when the action is to end.
bool Await(std::chrono::milliseconds time, ZWakeUp& news) {
    const ZStopEvent* const stop = ZStopEvent::OfThisThread();
    if (stop == nullptr) {
        return false;
    }
    std::array<pollfd, 2> entries{pollfd{.fd = stop->Descriptor(), .events = POLLIN, .revents = 0},
                                  pollfd{.fd = news.Descriptor(), .events = POLLIN, .revents = 0}};
    const auto deadline = ZClock::now() + time;
    while (!stop->IsSet() && !news.IsSet() && ZClock::now() < deadline) {
        ::poll(entries.data(), entries.size(), PollTimeout(deadline));
    }
    news.Clear();
    return !stop->IsSet();
}

}  // namespace

std::vector<ZSettingError> ZNodeTrialCfg::Conflicts() const {
    std::vector<ZSettingError> conflicts;
    if (m_DeadlineSeconds > 0 && m_HoldSeconds >= m_DeadlineSeconds) {
        conflicts.push_back({"holdSeconds",
                             "\"holdSeconds\" is not less than \"deadlineSeconds\": no version could "
                             "prove itself"});
    }
    return conflicts;
}

ZNodeTrial::ZNodeTrial(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

bool ZNodeTrial::OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>& config) {
    return ReadRecord<ZNodeTrialCfg>(config, [this](const ZNodeTrialCfg& record) {
        m_bootSettings = ToStdString(record.m_BootSettings);
        const auto settings = ZBootSettings::Load(m_bootSettings);
        auto control = settings ? ZBootControl::Make(*settings) : settings.error();
        if (!control) {
            throw std::runtime_error(control.error().text);
        }
        Trial::Rules rules{.checks = {},
                           .pause = std::chrono::seconds(record.m_PauseSeconds),
                           .hold = std::chrono::seconds(record.m_HoldSeconds),
                           .deadline = std::chrono::seconds(record.m_DeadlineSeconds),
                           .bByPerson = record.m_bConfirmByPerson};
        for (const ZString& text : record.m_Checks) {
            rules.checks.push_back(*HealthCheck::Parse(std::string_view(text)));
        }
        auto more = ReadManifestChecks(ToStdString(record.m_Manifest));
        const std::string problem = more ? std::string() : more.error().text;
        if (more) {
            rules.checks.insert(rules.checks.end(), more->begin(), more->end());
        } else {
            // A version whose own checks can't be read has not proved anything.
            rules.checks.push_back(
                {.bMust = true, .name = "manifest", .limit = std::chrono::seconds(1), .command = "false"});
            Z_LOG(3, "%s", problem);
        }
        m_trial = std::make_unique<Trial>(*settings, std::move(*control), std::move(rules));
        m_trial->SetProblem(problem);
    });
}

bool ZNodeTrial::InitMessageMap() {
    using Handler = bool (ZNodeTrial::*)(const std::shared_ptr<ZMessage>&);
    const auto on = [this](ZEndpointType type, const char* name, Handler handler) {
        return Subscribe(GetEndpoint(type, name, 0),
                         [this, handler](std::shared_ptr<ZMessage>& message) { return (this->*handler)(message); });
    };
    return on(ZEndpointType::GraphService, "slots", &ZNodeTrial::OnSlots) &&
           on(ZEndpointType::ClientRequest, "confirm", &ZNodeTrial::OnConfirm) &&
           on(ZEndpointType::ClientRequest, "revert", &ZNodeTrial::OnRevert) &&
           on(ZEndpointType::ClientRequest, "allow", &ZNodeTrial::OnAllow) &&
           on(ZEndpointType::GraphService, "veto", &ZNodeTrial::OnVeto) &&
           on(ZEndpointType::GraphService, "operation", &ZNodeTrial::OnOperation);
}

std::shared_ptr<ZOperation> ZNodeTrial::Begin(const ZSlotVersion& version) {
    return BeginOperation({.kind = ZOperationKind::Trial, .version = ToZString(version.version)});
}

bool ZNodeTrial::OnGraphCreated() {
    if (!std::filesystem::exists(m_bootSettings)) {
        m_trial->SetProblem("there is no " + m_bootSettings + ", so versions are not judged");
        Z_LOG(2, "Versions are not judged: there is no %s", m_bootSettings);
        return true;
    }
    if (const auto begun = m_trial->Begin(); !begun) {
        Z_LOG(3, "No version can be judged: %s", begun.error().text);
        return true;
    }
    m_trial->NoteSwitch();
    TellChange();
    RunAction("Judge", nullptr);
    return true;
}

void ZNodeTrial::TellChange() {
    const auto state = m_trial->Tell();
    PublishWithOutcome(GetEndpoint(ZEndpointType::GraphService, "trial", 0), state, nullptr, {true, false});
}

bool ZNodeTrial::Passes(const HealthCheck& check, std::string& reason) {
    if (!check.IsRequest()) {
        const bool passed = ZPlatform::ExecuteCommand(OutsideSandbox(check.command), reason, check.limit, check.name);
        reason.resize(std::min<std::size_t>(reason.size(), 200));
        return passed;
    }
    std::shared_ptr<ZMessage> answer;
    PublishWithOutcome(GetEndpoint(check.type, check.keyword.c_str(), 0), Z_MAKE(ZGenericRequestMsg), &answer,
                       {true, false, check.limit});
    if (!answer) {
        reason = "\"" + check.keyword + "\" is not answered";
        return false;
    }
    const auto response = cast_shared<ZGenericResponseMsg>(answer);
    reason = response ? ToStdString(response->m_ErrorText) : std::string();
    return !response || response->m_bSuccess;
}

bool ZNodeTrial::OnSlots(const std::shared_ptr<ZMessage>& request) {
    return PublishResponse(request, m_trial->Tell());
}

bool ZNodeTrial::Answer(const std::shared_ptr<ZMessage>& request, const ZResult<void>& done) {
    const auto answer = Z_MAKE(ZGenericResponseMsg);
    answer->m_bSuccess = done.has_value();
    if (!done) {
        answer->m_ErrorText = ToZString(done.error().text);
        answer->m_ErrorCode = ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST;
    }
    return PublishResponse(request, answer);
}

bool ZNodeTrial::OnConfirm(const std::shared_ptr<ZMessage>& request) {
    const auto done = m_trial->Confirm("confirmed by " + ToStdString(AskerOf(*request)));
    TellChange();
    return Answer(request, done);
}

bool ZNodeTrial::OnRevert(const std::shared_ptr<ZMessage>& message) {
    const auto request = ZCAST(ZRevertMsg, message);
    if (!request) {
        return true;
    }
    const auto version = m_trial->OnTrial();
    if (!version) {
        return Answer(message, version.error());
    }
    if (!*version) {
        const auto undone = m_trial->UndoSwitch();
        TellChange();
        return Answer(message, undone);
    }
    if (!m_trial->IsJudged()) {
        return Answer(message, ZError("nobody judges the version on trial here: arborctl slots tells why"));
    }
    const std::string reason = "taken back by " + ToStdString(AskerOf(*message)) +
                               (request->m_Reason.empty() ? "" : ": " + ToStdString(request->m_Reason));
    m_trial->Veto(reason);
    return Answer(message, {});
}

bool ZNodeTrial::OnAllow(const std::shared_ptr<ZMessage>& message) {
    const auto request = ZCAST(ZAllowMsg, message);
    if (!request) {
        return true;
    }
    const auto done = m_trial->Allow(ToStdString(request->m_Version));
    const bool answered = Answer(message, done);
    TellChange();
    return answered;
}

bool ZNodeTrial::OnVeto(const std::shared_ptr<ZMessage>& message) {
    if (const auto veto = ZCAST(ZVetoMsg, message)) {
        m_trial->Veto(ToStdString(veto->m_Reason));
    }
    return true;
}

bool ZNodeTrial::OnOperation(const std::shared_ptr<ZMessage>& message) {
    const auto operation = ZCAST(ZOperationMsg, message);
    if (operation && operation->m_Kind == ZOperationKind::Install && operation->m_Device.empty() &&
        !operation->IsOpen()) {
        m_trial->NoteSwitch();
        TellChange();
    }
    return true;
}

void ZNodeTrial_JudgeAction::TellLast() {
    Trial& trial = Node().Judged();
    const ZTrialState state = trial.State();
    if (!state.last || state.last->bTold) {
        return;
    }
    const auto operation = Node().Begin(state.last->version);  // not started: how long it took nobody knows any more
    if (state.last->bConfirmed) {
        operation->Succeed();
    } else {
        const std::string reason = "the device came back to " + state.confirmed.version + ": " + state.last->reason;
        Z_LOG(3, "Version %s was taken back: %s", state.last->version.version, reason);
        operation->Fail(ToZString(reason));
    }
    trial.MarkTold();
    Node().TellChange();
}

/// The version before is asked what the last one failed, for as long as that one was.
void ZNodeTrial_JudgeAction::JudgeFault() {
    Trial& trial = Node().Judged();
    const ZTrialState state = trial.State();
    if (!state.last || state.last->bConfirmed || state.last->bJudged) {
        return;
    }
    const Trial::Rules& rules = trial.Asked();
    const auto check = std::ranges::find(rules.checks, state.last->failedCheck, &HealthCheck::name);
    bool isAlike = check != rules.checks.end();
    const auto deadline = rules.deadline.count() > 0 ? rules.deadline : kUsualDeadline;
    while (isAlike && MillisecondsOfBoot(state) < std::chrono::milliseconds(deadline).count()) {
        std::string reason;
        isAlike = !Node().Passes(*check, reason);
        if (!IsRunning() || (isAlike && !Await(rules.pause, trial.News()))) {
            return;  // asked again when the host is back
        }
    }
    trial.MarkJudged(isAlike);
    if (isAlike) {
        Z_LOG(3, "Version %s fails \"%s\" as %s did, so it is not that version's fault", state.confirmed.version,
              check->name, state.last->version.version);
        Node().TellChange();
    }
}

bool ZNodeTrial_JudgeAction::ActionThread() {
    Trial& trial = Node().Judged();
    const ZScopeEnd others([&trial] { trial.StopJudging(); });
    TellLast();
    auto version = trial.OnTrial();
    while (!version) {
        trial.Judge();  // tells why that can't be known
        if (!Await(trial.Asked().pause, trial.News())) {
            return true;
        }
        version = trial.OnTrial();
    }
    if (!*version) {
        JudgeFault();
        return true;
    }
    const auto operation = Node().Begin(**version);
    operation->Start();
    Z_LOG(2, "Version %s has to prove itself: start %u of %u", (*version)->version, trial.State().trial->attempts,
          trial.Settings().attempts);
    Watch(*operation, **version);
    operation->Cancel("the host ends; the version still has to prove itself");
    return true;
}

void ZNodeTrial_JudgeAction::Watch(ZOperation& operation, const ZSlotVersion& version) {
    Trial& trial = Node().Judged();
    const auto ask = [this](const HealthCheck& check, std::string& reason) { return Node().Passes(check, reason); };
    while (IsRunning()) {
        if (trial.Judge() != Trial::Verdict::GoBack) {  // it is leaving, or a person has said so
            trial.AskAll(ask);
        }
        const auto verdict = IsRunning() ? trial.Judge() : Trial::Verdict::Wait;
        if (verdict == Trial::Verdict::Over) {
            TellEnd(operation, version);
            return;
        }
        auto pause = std::chrono::milliseconds(trial.Asked().pause);
        if (verdict == Trial::Verdict::Confirm) {
            Confirm(version);
            pause = {};
        } else if (verdict == Trial::Verdict::GoBack && Leave(operation, version)) {
            pause = kRestartPatience;
        } else {
            operation.Tell("Trial of " + ToZString(version.version), "waiting for " + ToZString(trial.Waiting()), 0);
        }
        Node().TellChange();
        if (!Await(pause, trial.News())) {
            return;
        }
    }
}

void ZNodeTrial_JudgeAction::Confirm(const ZSlotVersion& version) {
    if (const auto done = Node().Judged().Confirm("all its checks held"); !done) {
        Node().Judged().SetProblem("it can't be confirmed: " + done.error().text);
        Z_LOG(4, "Version %s can't be confirmed: %s", version.version, done.error().text);
        Await(Node().Judged().Asked().pause, Node().Judged().News());
    }
}

void ZNodeTrial_JudgeAction::TellEnd(ZOperation& operation, const ZSlotVersion& version) {
    const ZTrialState state = Node().Judged().State();
    if (!state.last || !state.last->bConfirmed || !state.last->version.SameAs(version)) {
        operation.Cancel("its trial was ended by something else");
        return;
    }
    Z_LOG(2, "Version %s has proved itself: %s", version.version, state.last->reason);
    operation.Succeed();
    Node().Judged().MarkTold();
    Node().TellChange();
}

/// False when the device can't leave the version now. It goes on: what is in the way may go away, and a version that
/// stays up serves better than none.
bool ZNodeTrial_JudgeAction::Leave(ZOperation& operation, const ZSlotVersion& version) {
    Trial& trial = Node().Judged();
    const ZTrialState before = trial.State();
    const bool wasLeaving = before.trial && before.trial->stage == ZTrialStage::Reverting;
    const ZTrialFault fault = trial.Complaint();
    const std::string why = wasLeaving ? before.trial->fault.reason : fault.reason;
    if (const auto done = trial.GoBack(fault); !done) {
        trial.SetProblem("it failed (" + why + "), but " + done.error().text);
        Z_LOG(4, "Version %s failed: %s; but %s", version.version, why, done.error().text);
        return false;
    }
    Z_LOG(4, "Version %s failed, the device goes back: %s", version.version, why);
    operation.Fail(ToZString(why + "; the device goes back to " + before.confirmed.version));
    if (wasLeaving) {
        trial.SetProblem("it failed (" + why + "), and the restart that brings back the version before does not come");
    }
    ZPlatform::ExecuteCommand({"/bin/sh", "-c", OutsideSandbox(trial.Settings().restart)});
    return true;
}
