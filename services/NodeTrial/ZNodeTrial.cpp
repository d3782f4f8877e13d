#include "ZNodeTrial.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "ZMessages/OperationMessages.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZStopEvent.h"

Z_IMPLEMENT(ZNodeTrialCfg)
Z_IMPLEMENT(ZNodeTrial)
Z_IMPLEMENT(ZNodeTrial_JudgeAction)

namespace {

// Rounds in which the version before must fail the same check, until it counts as failing in the same way.
constexpr int kRoundsAlike = 3;

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

ZNodeTrial::ZNodeTrial(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

bool ZNodeTrial::OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>& config) {
    return ReadRecord<ZNodeTrialCfg>(config, [this](const ZNodeTrialCfg& record) {
        const auto settings = ZBootSettings::Load(ToStdString(record.m_BootSettings));
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

bool ZNodeTrial::OnGraphCreated() {
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
        const bool passed = ZPlatform::ExecuteCommand(check.command, reason, check.limit, check.name);
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
    if (!m_trial->OnTrial()) {
        const auto undone = m_trial->UndoSwitch();
        TellChange();
        return Answer(message, undone);
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
    const ZTrialState state = Node().Judged().State();
    if (!state.last || state.last->bTold) {
        return;
    }
    const ZTrialEnd& last = *state.last;
    const auto operation =
        Node().BeginOperation({.kind = ZOperationKind::Trial, .version = ToZString(last.version.version)});
    operation->Start();
    if (last.bConfirmed) {
        operation->Succeed();
        Node().Judged().MarkTold(false);
        return;
    }
    const bool isAlike = FailsHereToo(last.failedCheck);
    std::string reason = "the device came back to " + state.confirmed.version + ": " + last.reason;
    if (isAlike) {
        reason += "; " + state.confirmed.version + " fails in the same way, so it is not this version's fault";
    }
    Z_LOG(3, "Version %s was taken back: %s", last.version.version, reason);
    operation->Fail(ToZString(reason));
    Node().Judged().MarkTold(isAlike);
    Node().TellChange();
}

bool ZNodeTrial_JudgeAction::FailsHereToo(const std::string& name) {
    const Trial::Rules& rules = Node().Judged().Asked();
    const auto check = std::ranges::find(rules.checks, name, &HealthCheck::name);
    if (check == rules.checks.end()) {
        return false;
    }
    for (int round = 0; round < kRoundsAlike; ++round) {
        std::string reason;
        if ((round > 0 && !Await(rules.pause, Node().Judged().News())) || Node().Passes(*check, reason) ||
            !IsRunning()) {
            return false;
        }
    }
    return true;
}

bool ZNodeTrial_JudgeAction::ActionThread() {
    Trial& trial = Node().Judged();
    TellLast();
    const auto version = trial.OnTrial();
    if (!version) {
        return true;
    }
    const auto operation =
        Node().BeginOperation({.kind = ZOperationKind::Trial, .version = ToZString(version->version)});
    operation->Start();
    Z_LOG(2, "Version %s has to prove itself: start %u of %u", version->version, trial.State().trial->attempts,
          trial.Settings().attempts);
    const auto ask = [this](const HealthCheck& check, std::string& reason) { return Node().Passes(check, reason); };
    for (auto verdict = Trial::Verdict::Wait; IsRunning();) {
        trial.AskAll(ask);
        verdict = IsRunning() ? trial.Judge() : Trial::Verdict::Wait;
        if (verdict != Trial::Verdict::Wait && End(*operation, *version, verdict)) {
            return true;
        }
        operation->Tell("Trial of " + ToZString(version->version), "waiting for " + ToZString(trial.Waiting()), 0);
        Node().TellChange();
        if (!Await(trial.Asked().pause, trial.News())) {
            break;
        }
    }
    operation->Cancel("the host ends; the version still has to prove itself");
    return true;
}

bool ZNodeTrial_JudgeAction::End(ZOperation& operation, const ZSlotVersion& version, Trial::Verdict verdict) {
    Trial& trial = Node().Judged();
    if (verdict == Trial::Verdict::Over) {  // a person has confirmed it
        operation.Succeed();
        trial.MarkTold(false);
        return true;
    }
    const bool isGood = verdict == Trial::Verdict::Confirm;
    const auto [reason, check] = isGood ? std::pair<std::string, std::string>() : trial.Complaint();
    const auto done = isGood ? trial.Confirm("all its checks held") : trial.GoBack(reason, check);
    if (!done) {
        // It goes on: what is in the way may go away, and a version that stays up serves better than none.
        trial.SetProblem((isGood ? "it can't be confirmed: " : "it failed (" + reason + "), but ") + done.error().text);
        Z_LOG(4, "Version %s: %s", version.version, done.error().text);
        return false;
    }
    if (isGood) {
        Z_LOG(2, "Version %s has proved itself", version.version);
        operation.Succeed();
        trial.MarkTold(false);
        Node().TellChange();
        return true;
    }
    Z_LOG(4, "Version %s failed, the device goes back: %s", version.version, reason);
    operation.Fail(ToZString(reason + "; the device goes back to " + trial.State().confirmed.version));
    Node().TellChange();
    if (!ZPlatform::ExecuteCommand({"/bin/sh", "-c", trial.Settings().restart})) {
        trial.SetProblem("the restart that brings back the version before could not be started; restart the device");
    }
    return true;
}
