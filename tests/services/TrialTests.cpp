// The judge of versions in a graph: what confirms one, what takes it back, and what it does when the boot loader fails.

#include <gmock/gmock.h>

#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZMessages/OperationMessages.h"
#include "ZNodeTrial.h"

namespace fs = std::filesystem;
using namespace testing;

namespace {

/// A device that has just started from slot B, which nobody knows yet.
class TrialNode : public Test {
protected:
    TrialNode() {
        folder.Write("Slots/A/version", "3.044\n");
        folder.Write("Slots/A/digest", std::string(64, 'a'));
        folder.Write("Slots/B/version", "3.046\n");
        folder.Write("Slots/B/digest", std::string(64, 'b'));
        folder.Write("Manifest.json", "{}");
        folder.Write("id", "first");
        folder.Write("slot", "A");
        fs::create_symlink("A", folder / "Slots" / "active");
        Settings(R"("control": "link")");
        const auto settings = *ZBootSettings::Load(folder / "boot.json");
        const auto control = *ZBootControl::Make(settings);
        EXPECT_TRUE(BeginBoot(settings, *control));
        EXPECT_TRUE(control->Activate("B", true));
        folder.Write("id", "second");
        folder.Write("slot", "B");
        record->m_PauseSeconds = 1;
        record->m_HoldSeconds = 0;
        record->m_DeadlineSeconds = 60;
    }
    void Settings(const std::string& more) {
        const auto path = [this](const char* name) { return '"' + (folder / name).string() + '"'; };
        folder.Write("boot.json", "{" + more + R"(, "slots": )" + path("Slots") + R"(, "state": )" + path("trial") +
                                      R"(, "runningSlotFile": )" + path("slot") + R"(, "bootIdFile": )" + path("id") +
                                      R"(, "kernelCommandLine": "/dev/null", "restart": "echo x >> )" +
                                      (folder / "restarts").string() + "\"}");
    }
    void Start() {
        record->m_BootSettings = ToZString((folder / "boot.json").string());
        record->m_Manifest = ToZString((folder / "Manifest.json").string());
        graph = std::make_unique<ZGraph>(ZMakeShared<ZCoreConfigParams>());
        ASSERT_EQ(ErrorOf(graph->AddNode("ZNodeTrial", "Trial", record)), "");
        ASSERT_EQ(ErrorOf(graph->AddNode("ProbeNode", "probe", nullptr)), "");
        probe = cast_shared<ProbeNode>(graph->Node("probe"));
        probe->Listen(ZEndpointType::GraphService, "operation", [this](const auto& message) {
            if (const auto job = cast_shared<ZOperationMsg>(message)) {
                jobs.Lock()->push_back(job);
            }
            return nullptr;
        });
        probe->Listen(ZEndpointType::GraphService, "greet", [](const auto&) { return Z_MAKE(ZGenericResponseMsg); });
        ASSERT_EQ(ErrorOf(graph->Start()), "");
    }
    std::shared_ptr<ZSlotsMsg> Stands() {
        auto answer =
            cast_shared<ZSlotsMsg>(probe->Ask(ZEndpointType::GraphService, "slots", ZMakeShared<ZGenericRequestMsg>()));
        return answer ? answer : ZMakeShared<ZSlotsMsg>();
    }
    /// How the job of the trial ended; empty while it has not.
    std::string End() {
        const auto told = jobs.Copy();
        const auto found = std::ranges::find_if(
            told, [](const auto& job) { return job->m_Kind == ZOperationKind::Trial && !job->IsOpen(); });
        return found == told.end() ? std::string() : ToStdString((*found)->m_Reason) + ".";
    }
    bool HasRestarted() const { return fs::exists(folder / "restarts"); }

    const TemporaryFolder folder;
    const LogCapture log;
    std::shared_ptr<ZNodeTrialCfg> record = ZMakeShared<ZNodeTrialCfg>("Trial");
    ZGuarded<std::vector<std::shared_ptr<ZOperationMsg>>> jobs;
    std::shared_ptr<ProbeNode> probe;
    std::unique_ptr<ZGraph> graph;
};

}  // namespace

TEST_F(TrialNode, ConfirmsOnceAllThatMustPassDoes) {
    record->m_Checks = {ZString(("must file 5 test -e " + (folder / "ready").string()).c_str()),
                        "must answer 5 request 3:greet", "should cable 5 echo no cable; false"};
    Start();
    ASSERT_TRUE(WaitUntil([this] { return Stands()->m_Waiting.starts_with("file: "); })) << log.All();
    EXPECT_EQ(Stands()->m_State, "trial");
    EXPECT_EQ(Stands()->m_Attempt, 1U);
    folder.Write("ready", "");
    ASSERT_TRUE(WaitUntil([this] { return Stands()->m_LastOutcome == "confirmed"; })) << log.All();
    EXPECT_TRUE(WaitUntil([this] { return End() == "."; }));
    EXPECT_FALSE(HasRestarted());
    const auto checks = Stands()->m_Checks;
    ASSERT_EQ(checks.size(), 3U);
    EXPECT_EQ(checks[2]->m_Reason, "no cable");
}

TEST_F(TrialNode, GoesBackAtTheDeadlineWithTheReason) {
    folder.Write("Manifest.json", R"({"healthChecks":["must measures 5 echo no signal; false"]})");
    record->m_DeadlineSeconds = 1;
    Start();
    ASSERT_TRUE(WaitUntil([this] { return HasRestarted(); })) << log.All();
    EXPECT_EQ(End(), "measures: no signal; the device goes back to 3.044.");
    EXPECT_EQ(fs::read_symlink(folder / "Slots" / "active"), "A");
    EXPECT_EQ(Stands()->m_State, "reverting");
}

TEST_F(TrialNode, BelievesANodeThatSaysNo) {
    record->m_bConfirmByPerson = true;
    record->m_DeadlineSeconds = 0;
    Start();
    ASSERT_TRUE(WaitUntil([this] { return Stands()->m_Waiting == "somebody who confirms it"; })) << log.All();
    const auto veto = ZMakeShared<ZVetoMsg>();
    veto->m_Reason = "the pump does not turn";
    probe->Publish(ZCommEndpoint(ZNodeUID(), ZEndpointType::GraphService, "veto"), veto);
    ASSERT_TRUE(WaitUntil([this] { return HasRestarted(); })) << log.All();
    EXPECT_EQ(End(), "the pump does not turn; the device goes back to 3.044.");
}

TEST_F(TrialNode, ConfirmsNothingThatTheBootLoaderDoesNotHearOf) {
    folder.Write("loader",
                 "case $1 in running|next) echo B;; good) test -e " + (folder / "mended").string() + ";; esac");
    Settings(R"("control": "command", "command": "sh )" + (folder / "loader").string() + '"');
    Start();
    ASSERT_TRUE(WaitUntil([this] { return Stands()->m_Problem.starts_with("it can't be confirmed: "); })) << log.All();
    EXPECT_EQ(Stands()->m_State, "trial");
    folder.Write("mended", "");
    EXPECT_TRUE(WaitUntil([this] { return Stands()->m_State == "confirmed"; })) << log.All();
}

TEST_F(TrialNode, WhatCantBeLeftIsToldAndLeftOnceItCan) {
    folder.Write("loader", "case $1 in running|next) echo B;; *) test -e " + (folder / "mended").string() + ";; esac");
    Settings(R"("control": "command", "command": "sh )" + (folder / "loader").string() + '"');
    record->m_Checks = {"must measures 5 echo no signal; false"};
    record->m_DeadlineSeconds = 1;
    Start();
    ASSERT_TRUE(WaitUntil([this] { return Stands()->m_Problem.starts_with("it failed (measures: no signal), but "); }))
        << log.All();
    EXPECT_EQ(End(), "") << "it has not ended";
    EXPECT_FALSE(HasRestarted());
    folder.Write("mended", "");
    EXPECT_TRUE(WaitUntil([this] { return HasRestarted(); })) << log.All();
    EXPECT_EQ(End(), "measures: no signal; the device goes back to 3.044.");
}

TEST_F(TrialNode, NobodyIsToldOfAWayBackThatNobodyTakes) {
    const auto other = ZTrialWatch::Hold((folder / "trial").string());
    ASSERT_TRUE(other);
    Start();
    const auto answer =
        cast_shared<ZGenericResponseMsg>(probe->Ask(ZEndpointType::ClientRequest, "revert", ZMakeShared<ZRevertMsg>()));
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->m_bSuccess);
}

TEST_F(TrialNode, WhatCantBeKnownForAWhileEndsNoTrial) {
    record->m_bConfirmByPerson = true;
    Start();
    ASSERT_TRUE(WaitUntil([this] { return Stands()->m_Waiting == "somebody who confirms it"; })) << log.All();
    fs::rename(folder / "slot", folder / "away");
    ASSERT_TRUE(WaitUntil([this] { return !Stands()->m_Problem.empty(); })) << log.All();
    fs::rename(folder / "away", folder / "slot");
    ASSERT_TRUE(WaitUntil([this] { return Stands()->m_Problem.empty(); })) << log.All();
    EXPECT_EQ(End(), "");
    EXPECT_EQ(Stands()->m_State, "trial");
}

TEST_F(TrialNode, VersionWhoseChecksCantBeReadProvesNothing) {
    fs::remove(folder / "Manifest.json");
    record->m_DeadlineSeconds = 1;
    Start();
    EXPECT_TRUE(WaitUntil([this] { return HasRestarted(); })) << log.All();
    EXPECT_TRUE(
        log.Has(3, (folder / "Manifest.json").string() + ": it can't be read, so its health checks are not known"));
}

TEST_F(TrialNode, WithoutAWayBackTheVersionStaysAndSaysSo) {
    fs::remove_all(folder / "Slots" / "A");
    record->m_Checks = {"must measures 5 false"};
    record->m_DeadlineSeconds = 1;
    Start();
    ASSERT_TRUE(WaitUntil([this] { return Stands()->m_Problem.starts_with("it failed (measures: "); })) << log.All();
    EXPECT_FALSE(HasRestarted());
    EXPECT_EQ(Stands()->m_State, "trial");
}

TEST(HealthCheck, NamesWhatIsWrongWithIt) {
    for (const auto& [text, wrong] :
         {std::pair{"may a 5 true", "it begins with \"must\" or \"should\""},
          std::pair{"must a/b 5 true", "its name is letters, digits, '-' and '_'"},
          std::pair{"must a 0 true", "behind its name stand the seconds that it may take, 1 to 300"},
          std::pair{"must a 5 ", "there is nothing to run"},
          std::pair{"must a 5 request 6:x", "a request is TYPE:KEYWORD, its type 1, 2 or 3"}}) {
        const auto check = HealthCheck::Parse(text);
        ASSERT_FALSE(check) << text;
        EXPECT_EQ(check.error().text, "the check '" + std::string(text) + "': " + wrong);
    }
    EXPECT_EQ(HealthCheck::Parse("  should  a   5  sh -c 'a  b'")->command, "sh -c 'a  b'");
}
