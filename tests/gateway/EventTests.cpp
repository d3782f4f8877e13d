// Server-sent events: who gets what, in which order, and what becomes of those who do not listen.

#include "GatewayFixture.h"
#include "ZShared/ZLog.h"

namespace {

TEST_F(Gateway, SendsEveryEventToEveryListenerWithRisingIds) {
    ASSERT_TRUE(Start()) << error << log.All();
    RawClient first = Events();
    RawClient second = Events();
    PublishProgress(10);
    probe->Tell("updateavailable",
                Made("ZMessageArray", R"({"messages":[{"className":"ZVersionInfoMsg","version":"3.046"}]})"));
    probe->Tell("storagedeviceupdate", Made("StorageDevicesMsg", R"({"addedDevices":["/media/a"]})"));
    probe->Tell("peerupdate", Made("ZPeerMsg", R"({"serialNumber":"4711","connected":true})"));
    for (RawClient* client : {&first, &second}) {
        ASSERT_TRUE(client->WaitFor("4711")) << client->Received();
        EXPECT_THAT(
            client->Received(),
            testing::MatchesRegex("HTTP/1.1 200 OK.*text/event-stream.*"
                                  "event: progress\nid: 1\ndata: "
                                  "\\{\"className\":\"InstallProgressMsg\"[^\n]*\"percent\":10[^\n]*\\}\n\n.*"
                                  "event: updateavailable\nid: 2\ndata: \\{[^\n]*\"version\":\"3.046\"[^\n]*\\}\n\n.*"
                                  "event: storagedeviceupdate\nid: 3\ndata: \\{[^\n]*/media/a[^\n]*\\}\n\n.*"
                                  "event: peerupdate\nid: 4\ndata: \\{[^\n]*\"connected\":true[^\n]*\\}\n\n.*"));
    }
}

TEST_F(Gateway, TellsALateListenerTheLastProgressAndUpdatesFirst) {
    ASSERT_TRUE(Start());
    RawClient witness = Events();
    probe->Tell("updateavailable", Made("ZMessageArray"));
    PublishProgress(20);
    PublishProgress(60);
    ASSERT_TRUE(witness.WaitFor("\"percent\":60"));
    RawClient late = Events();
    ASSERT_TRUE(late.WaitFor("\n\n", 2));
    EXPECT_THAT(late.Received(),
                testing::MatchesRegex(".*event: progress\n[^\n]*\n[^\n]*\"percent\":60.*event: updateavailable.*"));
    EXPECT_EQ(late.Received().find("\"percent\":20"), std::string::npos);
    EXPECT_EQ(witness.Received().find("event: log"), std::string::npos) << "log lines were not asked for";
}

TEST_F(Gateway, SendsLogLinesToThoseWhoAskForThem) {
    ASSERT_TRUE(Start());
    RawClient listener = Events("?log=1");
    ZLog::Instance().Log(2, "Test", "test", "Test", 1, "%s", "a \"quoted\" name, and one in Latin-1: M\xfcller");
    EXPECT_TRUE(listener.WaitFor("a \\\"quoted\\\" name, and one in Latin-1: M\\\\xfcller\"}\n\n"));
    EXPECT_THAT(listener.Received(), testing::HasSubstr(R"("level":2,"channel":"Test","text":"a \"quoted)"));
    const Reply lines = Get("/v1/log?lines=1");
    EXPECT_THAT(lines.body,
                testing::MatchesRegex(R"(\{"lines":\["Test .*ller"\],"entries":\[\{"number":[0-9]+,"time":1[0-9]{12},)"
                                      R"("level":2,"channel":"Test","text":"a .*ller"\}\]\})"));
    ZLog::Instance().Log(4, "Test", "test", "Test", 1, "bad");
    ZLog::Instance().Log(2, "Test", "test", "Test", 1, "odd");
    EXPECT_THAT(Get("/v1/log?lines=1&level=4").body, testing::HasSubstr(R"("text":"bad")"));
    EXPECT_EQ(Get("/v1/log?since=99999999999999").body, R"({"lines":[],"entries":[]})");
}

TEST_F(Gateway, DropsAListenerThatDoesNotRead) {
    ASSERT_TRUE(Start(R"("eventBacklog":4)"));
    RawClient slow = Events();
    RawClient quick = Events();
    const std::string text(100'000, 'x');
    for (int percent = 1; percent <= 40; ++percent) {
        PublishProgress(percent, text);
        ASSERT_TRUE(quick.WaitFor("event: progress", static_cast<std::size_t>(percent)));
    }
    ASSERT_TRUE(slow.WaitForEnd());
    EXPECT_EQ(slow.Received().find("\"percent\":40"), std::string::npos);
    EXPECT_TRUE(WaitUntil([&] { return log.Count("ZNodeGateway NodeGateway/EventStream", 3) == 1; })) << log.All();
    ExpectMetric("arbor_event_clients_dropped_total 1");
    PublishProgress(99);
    EXPECT_TRUE(quick.WaitFor("\"percent\":99"));
}

TEST_F(Gateway, RefusesMoreListenersThanAllowedUntilOneLeaves) {
    ASSERT_TRUE(Start(R"("maxEventClients":2)"));
    RawClient first = Events();
    RawClient second = Events();
    EXPECT_EQ(Get("/v1/events").status, 503);
    first.Close();
    // HEAD is refused and allowed as GET is, and has an end.
    EXPECT_TRUE(WaitUntil([&] { return Send("HEAD", "/v1/events", "").status == 200; }));
    EXPECT_TRUE(WaitUntil([&] { return Events().Says("200"); }));
}

}  // namespace
