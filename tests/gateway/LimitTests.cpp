// What strangers may cost: memory, connections, streams, turns and time, of one user and of all.

#include <poll.h>

#include <fstream>
#include <thread>

#include "GatewayFixture.h"

namespace {

constexpr const char* kHalfAHead = "GET /v1/st";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeepsFreedMemory = true;
#else
constexpr bool kKeepsFreedMemory = false;
#endif

std::string Repeated(std::size_t count, const std::string& text) {
    std::string all;
    for (std::size_t done = 0; done < count; ++done) {
        all += text;
    }
    return all;
}

/// A number of this process's, in KiB.
long StatusKiB(const std::string& key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ':')) {
            return std::stol(line.substr(key.size() + 1));
        }
    }
    return 0;
}

class GatewayOfTwoUsers : public GatewayOfUsers {
protected:
    std::unique_ptr<RawClient> Client(uid_t user, const std::string& firstBytes) {
        std::unique_ptr<RawClient> client;
        As({user}, [&] { client = std::make_unique<RawClient>(socket, firstBytes); });
        return client;
    }
    Crowd NobodysClients(int count, const std::string& firstBytes) {
        Crowd clients;
        As({}, [&] { clients = Clients(count, firstBytes); });
        return clients;
    }
};

TEST_F(Gateway, KeepsItsMemoryWhenNestedDocumentsPourIn) {
    ASSERT_TRUE(Start());
    probe->Listen(kDevice, "upload");
    const std::string nested = R"({"className":"ZFileWriteMsg","x":[)" + Repeated(150'000, "[[[]]],[[]]") + "]}";
    const std::string request = PostText("/v1/upload", nested);
    const std::string many =
        PostText("/v1/updatesystem", R"({"x":[)" + Repeated(20'000, "0,") + "0]}");  // small, but many values
    EXPECT_EQ(Get("/v1/status").status, 200);
    const long before = StatusKiB("VmRSS");
    std::ofstream("/proc/self/clear_refs") << 5;  // forgets the highest one so far
    std::vector<std::thread> clients;
    for (int count = 0; count < 32; ++count) {
        clients.emplace_back([&] {
            for (const std::string* text : {&request, &many}) {
                RawClient client(socket, *text);
                EXPECT_TRUE(client.WaitFor("\r\n\r\n"));
                EXPECT_THAT(client.Received(), testing::MatchesRegex("HTTP/1.1 (400|503) .*problem.json.*"));
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_TRUE(probe->Received().empty());
    if (!kKeepsFreedMemory) {
        EXPECT_LT(StatusKiB("VmHWM") - before, 24 * 1024);
        EXPECT_TRUE(WaitUntil([&] { return StatusKiB("VmRSS") - before < 8 * 1024; })) << StatusKiB("VmRSS") - before;
    }
}

TEST_F(Gateway, RefusesDocumentsThatAreTooMuchForAMessage) {
    ASSERT_TRUE(Start());
    probe->Listen(kClient, "compareversions", [](const auto&) { return Made("ZCompareVersionsResultMsg"); });
    const auto listOf = [](std::size_t values) { return R"({"x":[)" + Repeated(values - 1, "1,") + "1]}"; };
    const auto deep = [](std::size_t levels) {
        return R"({"x":)" + std::string(levels - 1, '[') + std::string(levels - 1, ']') + '}';
    };
    const auto large = [](std::size_t size) { return R"({"x":")" + std::string(size - 8, 'x') + "\"}"; };
    const std::tuple<const char*, std::string, int> rows[]{
        {"as many values as may be", listOf(1022), 200},
        {"one more", listOf(1023), 400},
        {"as deep as may be", deep(32), 200},
        {"one deeper", deep(33), 400},
        {"as large as may be", large(65536), 200},
        {"one larger", large(65537), 413},
        {"two documents", "{}{}", 400},
        {"two documents on two lines", "{}\n{\"version1\":\"3.1\"}\n", 400},
        {"a document and half of one", "{}{", 400},
        {"blanks around", "\r\n {} \t\n", 200},
        {"versions of dots alone", R"({"version1":")" + std::string(65000, '.') + "\"}", 200},
        {"the same key again, and a NUL that is escaped", "{\"version1\":\"1\",\"version1\":\"4\\u0000\x7f\"}", 200},
    };
    for (const auto& [name, body, status] : rows) {
        const Reply reply = Post("/v1/compareversions", body);
        EXPECT_EQ(reply.status, status) << name << ": " << reply.body;
        EXPECT_EQ(reply.Text("detail").empty(), status == 200) << name;
    }
}

TEST_F(Gateway, RefusesBodiesWhoseLengthCanBeReadInTwoWays) {
    ASSERT_TRUE(Start());
    probe->Listen(kClient, "findupdates", [](const auto&) { return Made("ZMessageArray"); });
    const std::string inChunks = "\r\n2\r\n{}\r\n0\r\n\r\n";
    for (const std::string& rest : {
             "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n" + inChunks,
             "Transfer-Encoding: chunked\r\nContent-Length: 2\r\n" + inChunks,
             "Transfer-Encoding: gzip\r\nContent-Length: 2\r\n" + inChunks,
             "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n" + inChunks,
             "Transfer-Encoding: gzip, chunked\r\n" + inChunks,
             "Transfer-Encoding: identity\r\n" + inChunks,
             "Transfer-Encoding : chunked\r\n" + inChunks,
             std::string("Content-Length: -2\r\n\r\n{}"),
             std::string("Content-Length: +2\r\n\r\n{}"),
             std::string("Content-Length: 2 2\r\n\r\n{}"),
             std::string("Content-Length: 2, 3\r\n\r\n{}"),
             std::string("Content-Length: 2\r\nContent-Length: 3\r\n\r\n{} "),
             std::string("Content-Length: 3\r\nContent-Length: 2\r\n\r\n{} "),
             std::string("Content-Length : 2\r\n\r\n{}"),
             std::string("Content-Length: 0x2\r\n\r\n{}"),
             std::string("Content-Length: 2.0\r\n\r\n{}"),
             std::string("Content-Length:\r\n\r\n{}"),
             std::string("Content-Length: 18446744073709551618\r\n\r\n{}"),
         }) {
        RawClient client(socket, "POST /v1/findupdates HTTP/1.1\r\n" + rest);
        client.ReadAll();
        EXPECT_TRUE(client.Received().starts_with("HTTP/1.1 400 ")) << rest << client.Received();
        EXPECT_NE(client.Received().find("application/problem+json"), std::string::npos) << rest;
        EXPECT_EQ(client.Received().find("HTTP/1.1", 1), std::string::npos) << rest << "was answered twice";
    }
    EXPECT_TRUE(probe->Received().empty());
}

TEST_F(Gateway, AnswersWhileManyNeverFinishTheirRequests) {
    ASSERT_TRUE(Start());
    const Crowd stalled = Clients(150, kHalfAHead, "POST /v1/upload HTTP/1.1\r\nContent-Length: 9\r\n\r\n{");
    EXPECT_EQ(Get("/v1/status").status, 200);
    EXPECT_EQ(Get("/v1/metrics").status, 200);
    EXPECT_TRUE(Events().Says("200"));
    for (const auto& client : stalled) {
        EXPECT_TRUE(client->IsOpen()) << "the others had to wait until this one was cut off";
    }
    EXPECT_TRUE(stalled.front()->WaitForEnd()) << "which it is in the end";
}

TEST_F(GatewayOfTwoUsers, LeavesStreamsForOthersWhenOneHasItsShare) {
    ASSERT_TRUE(StartForAll(R"("maxEventClients":8)"));
    constexpr const char* kEvents = "GET /v1/events HTTP/1.1\r\n\r\n";
    Crowd streams;
    const auto open = [&](uid_t user) {
        streams.push_back(Client(user, kEvents));
        EXPECT_TRUE(streams.back()->WaitFor("\r\n\r\n"));
        return streams.back()->Received().substr(0, 12);
    };
    for (int count = 0; count < 6; ++count) {
        EXPECT_EQ(open(kNobody), "HTTP/1.1 200");
    }
    EXPECT_EQ(open(kNobody), "HTTP/1.1 503");
    EXPECT_EQ(open(0), "HTTP/1.1 200");
    EXPECT_EQ(open(0), "HTTP/1.1 200");
    EXPECT_EQ(open(0), "HTTP/1.1 503") << "there are eight";
    streams.erase(streams.begin());
    EXPECT_TRUE(WaitUntil([&] { return open(kNobody) == "HTTP/1.1 200"; }));
}

TEST_F(GatewayOfTwoUsers, LeavesConnectionsForOthersWhenOneHasItsShare) {
    ASSERT_TRUE(StartForAll());
    Crowd idle = NobodysClients(400, kHalfAHead);
    idle.back()->ReadAll();
    EXPECT_EQ(Get("/v1/status").status, 200);
    EXPECT_EQ(Get("/v1/metrics").status, 200);
    EXPECT_TRUE(Events().Says("200"));
    EXPECT_TRUE(idle.front()->IsOpen());
    idle.clear();
    EXPECT_TRUE(WaitUntil([&] {
        const auto again = Client(kNobody, "GET /v1/log HTTP/1.1\r\n\r\n");
        return again->WaitFor("\r\n\r\n") && again->Says("200");
    }));
}

TEST_F(GatewayOfTwoUsers, TellsWhoHasItsShareOfConnectionsSo) {
    ASSERT_TRUE(StartForAll(R"("maxEventClients":1)"));
    const Crowd idle = NobodysClients(193, kHalfAHead);  // three quarters of 257
    const auto refused = Client(kNobody, "GET /v1/status HTTP/1.1\r\n\r\n");
    refused->ReadAll();
    EXPECT_THAT(refused->Received(), testing::MatchesRegex("HTTP/1.1 503 .*Connection: close\r\n.*problem.json\r\n.*"
                                                           "As many connections as are allowed are open.*"));
}

TEST_F(GatewayOfTwoUsers, LeavesTurnsForOthersWhenOneHasItsShare) {
    ASSERT_TRUE(StartForAll());
    probe->Listen(kClient, "findupdates");  // and never answers
    probe->Listen(kClient, "compareversions", [](const auto&) { return Made("ZCompareVersionsResultMsg"); });
    const Crowd waiting = NobodysClients(20, PostText("/v1/findupdates", "{}"));
    EXPECT_TRUE(probe->WaitForMessages(6));
    EXPECT_EQ(Post("/v1/compareversions", "{}").status, 200);
    EXPECT_EQ(probe->Received().size(), 7U) << "one user had more than its share";
    // Those that got no turn are told so, and are counted.
    EXPECT_TRUE(waiting.back()->WaitFor("Too many requests wait for their answers"));
    ExpectMetric(R"(arbor_requests_total{keyword="findupdates",code="503"} 14)");
}

TEST_F(GatewayOfTwoUsers, LeavesMemoryForOthersWhenOneHasItsShare) {
    ASSERT_TRUE(StartForAll());
    probe->Listen(kDevice, "upload", [](const auto&) { return Made("ZGenericResponseMsg"); });
    constexpr const char* kLarge = "POST /v1/upload HTTP/1.1\r\nContent-Length: 2097152\r\n\r\n{";
    const Crowd slow = NobodysClients(3, kLarge);
    EXPECT_TRUE(WaitUntil([&] {
        const auto refused = Client(kNobody, kLarge);
        return refused->WaitFor("\r\n\r\n") && refused->Says("503");
    }));
    const std::string data(1'500'000, 'A');
    EXPECT_EQ(Post("/v1/upload", R"({"className":"ZFileWriteMsg","data":")" + data + "\"}").status, 200);
    for (const auto& client : slow) {
        EXPECT_TRUE(client->IsOpen());
    }
}

TEST_F(Gateway, CutsOffThoseWhoSendOrTakeByDrops) {
    ASSERT_TRUE(Start());
    for (int line = 0; line < 1000; ++line) {
        ZLog::Instance().Log(2, "Test", "test", "Test", 1, "%s", std::string(2000, 'x').c_str());
    }
    RawClient listener = Events();  // which has nothing to say, and is let be
    RawClient head(socket, "GET /v1/status HTTP/1.1\r\nX-Thing: ");
    RawClient body(socket, "POST /v1/findupdates HTTP/1.1\r\nContent-Length: 60000\r\n\r\n{");
    RawClient answer(socket, "GET /v1/log?lines=1000 HTTP/1.1\r\n\r\n");  // and does not look at what comes
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    while ((head.IsOpen() || body.IsOpen() || answer.IsOpen()) && std::chrono::steady_clock::now() < deadline) {
        head.Send("x");
        body.Send(" ");
        ::poll(nullptr, 0, 100);  // a drop ten times a second
    }
    EXPECT_TRUE(listener.WaitFor(": keep-alive\n\n"));
    EXPECT_FALSE(head.IsOpen());
    EXPECT_FALSE(body.IsOpen());
    EXPECT_FALSE(answer.IsOpen());
    EXPECT_EQ(Get("/v1/log?lines=1").status, 200);
}

TEST_F(Gateway, EndsAtOnceWhileRequestsWaitAndListenersDoNotRead) {
    ASSERT_TRUE(Start());
    probe->Listen(kClient, "findupdates");
    RawClient full = Events();
    for (int percent = 1; percent <= 20; ++percent) {
        PublishProgress(percent, std::string(100'000, 'x'));
    }
    const Crowd waiting = Clients(12, PostText("/v1/findupdates", "{}"));
    EXPECT_TRUE(probe->WaitForMessages(6));
    EXPECT_EQ(graph->Stop(), ZGraphEnd::Agreed);
    EXPECT_TRUE(full.WaitForEnd());
    for (const auto& client : waiting) {
        EXPECT_TRUE(client->WaitForEnd());
    }
}

TEST_F(Gateway, EndsAtOnceWithStreamsAndHalfRequestsOpen) {
    ASSERT_TRUE(Start());
    RawClient stream = Events("?log=1");
    RawClient half(socket, "POST /v1/findupdates HTTP/1.1\r\nContent-Length: 100\r\n\r\n{");
    RawClient idle(socket, "");
    EXPECT_EQ(graph->Stop(), ZGraphEnd::Agreed);
    EXPECT_TRUE(stream.WaitForEnd() && half.WaitForEnd() && idle.WaitForEnd());
    EXPECT_TRUE(stream.Received().ends_with("0\r\n\r\n")) << "the stream's end was not marked as one";
}

TEST_F(Gateway, ServesHundredsOfStreams) {
    ASSERT_TRUE(Start(R"("maxEventClients":512)"));
    std::vector<RawClient> streams;
    for (int count = 0; count < 300; ++count) {
        streams.push_back(Events());
    }
    PublishProgress(35);
    for (RawClient& stream : streams) {
        EXPECT_TRUE(stream.WaitFor("\"percent\":35"));
    }
    ExpectMetric("arbor_event_clients 300");
    streams.clear();
    ExpectMetric("arbor_event_clients 0");
}

}  // namespace
