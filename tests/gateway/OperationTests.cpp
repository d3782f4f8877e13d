// Jobs: who asked for them, how they are found again, and what the state says of them.

#include <pwd.h>

#include <future>

#include "GatewayFixture.h"
#include "NodeBase/ZOperation.h"

namespace {

using namespace testing;

/// The gateway with a real journal beside it.
class GatewayJobs : public Gateway {
protected:
    bool StartWithJournal(const std::string& settings = "") { return Start(settings) && StartJournal(); }
    std::shared_ptr<ZOperation> Begin(ZOperationKind kind, const char* file = "") {
        return probe->BeginOperation({.kind = kind, .file = file});
    }
    std::string Status() { return Get("/v1/status").body; }
    bool WaitForStatus(const char* part) {
        return WaitUntil([&] { return Status().find(part) != std::string::npos; });
    }
};

std::string Asker() {
    const passwd* const entry = ::getpwuid(::geteuid());
    return "user " + (entry == nullptr ? std::to_string(::geteuid()) : std::string(entry->pw_name));
}

TEST_F(GatewayJobs, TellsWhichJobARequestHasBegunAndTheJobWhoAsked) {
    ASSERT_TRUE(StartWithJournal(R"("developerMode":true)")) << log.All();
    ZGuarded<std::vector<std::shared_ptr<ZOperation>>> started;
    probe->Listen(kClient, "updatesystem", [&](const std::shared_ptr<ZMessage>& request) {
        const auto update = cast_shared<ZSystemUpdateMsg>(request);
        for (int jobs = update->m_bReboot ? 2 : 0; jobs > 0; --jobs) {
            started.Lock()->push_back(probe->BeginOperation({.kind = ZOperationKind::Install}, request.get()));
        }
        return Made("ZVersionInfoMsg");
    });
    const Reply reply = Post("/v1/updatesystem", "");
    EXPECT_EQ(reply.Text("className"), "ZVersionInfoMsg") << reply.body;
    auto begun = started.Exchange({});
    ASSERT_EQ(begun.size(), 2U);
    EXPECT_EQ(reply.Text("operationId"), ToStdString(begun[0]->Id()));
    EXPECT_NE(begun[0]->Id(), begun[1]->Id());
    const Reply job = Get("/v1/operations/" + reply.Text("operationId"));
    EXPECT_EQ(job.Text("className"), "ZOperationMsg") << job.body;
    EXPECT_EQ(job.Text("asker"), Asker());
    EXPECT_THAT(Post("/v1/updatesystem", R"({"reboot":false})").body, Not(HasSubstr("operationId")));

    // What a notification begins, it begins after the answer.
    for (const char* name : {"newFile", "storagedeviceupdate"}) {
        std::promise<std::shared_ptr<ZMessage>> notified;
        probe->Listen(kService, name, [&](const std::shared_ptr<ZMessage>& message) {
            notified.set_value(message);
            return nullptr;
        });
        const Reply accepted = Post(std::string("/v1/") + name, "{}");
        EXPECT_EQ(accepted.status, 202);
        const auto later = probe->BeginOperation({.kind = ZOperationKind::Check}, notified.get_future().get().get());
        EXPECT_EQ(accepted.Text("operationId"), ToStdString(later->Id()));
        EXPECT_EQ(accepted.body.size(), std::string(R"({"operationId":"0123456789abcdef"})").size());
        later->Succeed();
    }
    begun.clear();
}

TEST_F(GatewayJobs, ServesTheHistory) {
    ASSERT_TRUE(Start());
    EXPECT_EQ(Get("/v1/operations").status, 503);
    EXPECT_EQ(Get("/v1/operations/0123").status, 503);
    graph.reset();
    ASSERT_TRUE(StartWithJournal()) << log.All();
    const auto failed = Begin(ZOperationKind::Check, "1.pkg");
    failed->Fail("the signer is unknown");
    const auto install = Begin(ZOperationKind::Install, "2.pkg");
    for (const char* id : {"twin0001", "twin0002"}) {
        const auto message = ZMakeShared<ZOperationMsg>();
        message->m_Id = id;
        message->m_State = ZOperationState::Lost;
        probe->Tell("operation", message);
    }
    const std::string id = ToStdString(failed->Id());
    // What is told is a part of the answer.
    const std::tuple<std::string, int, const char*> rows[]{
        {"", 200, R"("id":"twin0002")"},
        {"?kind=INSTALL&state=open", 200, R"("file":"2.pkg")"},
        {"?state=failed&since=1&node=probe&limit=1", 200, R"("reason":"the signer is unknown")"},
        {"?state=cancelled", 200, R"("operations":[])"},
        {"?limit=1", 200, R"("next":"4")"},
        {"?limit=1&before=2", 200, R"("file":"1.pkg")"},
        {"/" + id, 200, R"("file":"1.pkg")"},
        {"/" + id.substr(0, 10), 200, R"("file":"1.pkg")"},
        {"/twin", 409, "begin with"},
        {"/nosuchjob", 404, "no job"},
        {"/abc", 400, R"("field":"id")"},
        {"/", 400, R"("field":"id")"},
        {"?kind=dance", 400, R"("field":"kind")"},
        {"?state=done", 400, R"("field":"state")"},
        {"?since=yesterday", 400, R"("field":"since")"},
        {"?since=9223372036854775808", 400, R"("field":"since")"},
        {"?limit=1001", 400, R"("field":"limit")"},
        {"?before=x", 400, R"("field":"before")"},
    };
    for (const auto& [path, status, told] : rows) {
        const Reply reply = Get("/v1/operations" + path);
        EXPECT_EQ(reply.status, status) << path << reply.body;
        EXPECT_THAT(reply.body, HasSubstr(told)) << path;
    }
    EXPECT_EQ(Post("/v1/operations", "{}").status, 405);
    EXPECT_EQ(Post("/v1/operations/" + id, "{}").status, 405);
    install->Succeed();
}

TEST_F(GatewayJobs, TellsEveryChangeOfAJobAndCountsItsEnd) {
    ASSERT_TRUE(StartWithJournal());
    RawClient listener = Events();
    const auto first = Begin(ZOperationKind::Install);
    const auto second = Begin(ZOperationKind::Install);
    first->Start();
    first->Tell("Install", "writing", 44);
    first->Cancel("by alice");
    ASSERT_TRUE(listener.WaitFor("by alice")) << listener.Received();
    EXPECT_THAT(listener.Received(), MatchesRegex(".*event: operation\n[^\n]*\n[^\n]*\"state\":\"Queued\".*"
                                                  "event: operation\n[^\n]*\n[^\n]*\"state\":\"Running\".*"
                                                  "event: operation\n[^\n]*\n[^\n]*\"percent\":44.*"
                                                  "event: operation\n[^\n]*\n[^\n]*\"state\":\"Cancelled\".*"));
    for (const char* sample :
         {R"(arbor_operations_total{kind="Install",state="Cancelled"} 1)", R"(arbor_operations_open{kind="Install"} 1)",
          R"(arbor_operations_open{kind="Check"} 0)", "arbor_update_in_progress 1"}) {
        ExpectMetric(sample);
    }
    second->Succeed();
    ExpectMetric("arbor_update_in_progress 0");
}

TEST_F(GatewayJobs, TellsTheStateWithoutQuestionsThatLeaveLogLines) {
    ASSERT_TRUE(StartWithJournal());
    for (const char* keyword : {"findupdates", "getinstalledversioninfo"}) {
        probe->Listen(kClient, keyword);
    }
    probe->Listen(kService, "getUpdateInProgress");
    graph->AddNode("ProbeNode", "installer", nullptr).value();
    cast_shared<ProbeNode>(graph->Node("installer"))->Listen(kService, "inventory", [](const auto&) {
        return Made("ZInventoryMsg",
                    R"({"installedVersion":"3.044","runningSlot":"A","nextSlot":"B","nextVersion":"3.045",)"
                    R"("packages":[{"version":"3.046","file":"/media/usb1/a.pkg","source":"/media/usb1","size":7,)"
                    R"("relation":"newer","board":"b"},{"version":"3.043","relation":"older"}],)"
                    R"("refused":[{"file":"/media/usb1/bad.pkg","reason":"it is damaged","checkedAt":5}],)"
                    R"("archive":[{"version":"3.044"}],"updatesFree":1000})");
    });
    const auto install = Begin(ZOperationKind::RemoteInstall);
    // More than one page of other jobs began since.
    std::vector<std::shared_ptr<ZOperation>> checks;
    for (int count = 0; count < 1100; ++count) {
        checks.push_back(Begin(ZOperationKind::Check));
    }
    EXPECT_TRUE(WaitForStatus(R"("updateInProgress":true)"));
    for (const auto& check : checks) {
        check->LeaveOpen();
    }
    const std::string status = Status();
    for (
        const char* part :
        {R"("installedVersion":"3.044")", R"("runningSlot":"A")", R"("nextSlot":"B")", R"("nextVersion":"3.045")",
         R"("updates":[{"version":"3.046","source":"/media/usb1","size":7,"relation":"newer","board":"b",)"
         R"("file":"/media/usb1/a.pkg","signer":null},{"version":"3.043","source":null,"size":null,"relation":"older",)",
         R"("reason":"it is damaged","errorCode":"ERRCODE_NONE","checkedAt":5)", R"("archive":[{"version":"3.044",)",
         R"("updatesFree":1000,"archiveFree":null,"trustedSigners":"","trustDocument":0,"trustProblem":null)",
         R"("operations":[{"className":"ZOperationMsg",)"}) {
        EXPECT_THAT(status, HasSubstr(part));
    }
    install->Succeed();
    EXPECT_TRUE(WaitForStatus(R"("updateInProgress":false)"));
    Begin(ZOperationKind::Install)->Fail("no power");
    const auto newest = Begin(ZOperationKind::Install);  // open: not the last that has ended
    EXPECT_TRUE(WaitForStatus(R"("updateInProgress":true)"));
    EXPECT_THAT(Status(), ContainsRegex(R"re("lastInstall":\{[^{}]*"reason":"no power")re"));
    newest->Succeed();
    EXPECT_THAT(probe->Received(), IsEmpty());
}

}  // namespace
