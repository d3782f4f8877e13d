// Requests and notifications: what reaches the bus, what comes back, and how bad input is refused.

#include <thread>

#include "GatewayFixture.h"

namespace {

struct KeywordCase {
    const char* keyword;
    ZEndpointType type;
    const char* body;
    const char* request;  // the class that must arrive
    const char* key;      // and one member of it
    const char* value;
    const char* answer;  // null: a notification
};

constexpr const char* kAsDeveloper = R"("developerMode":true)";

const KeywordCase kKeywords[] = {
    {"updatesystem", kClient, R"({"version":"3.045","reboot":false,"nobodyKnows":[1]})", "ZSystemUpdateMsg", "version",
     "3.045", "ZVersionInfoMsg"},
    {"compareversions", kClient, R"({"version1":"3.1","version2":"3.2"})", "ZCompareVersionsMsg", "version2", "3.2",
     "ZCompareVersionsResultMsg"},
    {"findupdates", kClient, "", "ZGenericRequestMsg", "", "", "ZMessageArray"},
    {"getinstalledversioninfo", kClient, " \r\n", "ZGenericRequestMsg", "", "", "ZVersionInfoMsg"},
    {"getUpdateInProgress", kService, R"({"className":"ZSystemUpdateInProgressRequestMsg","requestTag":"a"})",
     "ZSystemUpdateInProgressRequestMsg", "requestTag", "a", "ZSystemUpdateInProgressMsg"},
    {"newFile", kService, R"({"folder":"/u","fileName":"a.pkg"})", "FolderUpdateMsg", "fileName", "a.pkg", nullptr},
    {"storagedeviceupdate", kService, R"({"devices":["/media/a"]})", "StorageDevicesMsg", "", "", nullptr},
    {"getdevices", kService, "{}", "ZGenericRequestMsg", "", "", "StorageDevicesMsg"},
    {"deviceProps", kService, "{}", "ZGenericRequestMsg", "", "", "ZDevicePropertiesMsg"},
    {"checkCompatibility", kService, R"({"board":"b","model":6})", "ZDeviceCompatibilityMsg", "model", "QMDAccessory",
     "ZDeviceCompatibilityMsg"},
    {"upload", kDevice, R"({"className":"ZFileOpenMsg","filePath":"f","mode":493})", "ZFileOpenMsg", "filePath", "f",
     "ZGenericResponseMsg"},
    {"upload", kDevice, R"({"className":"ZFileWriteMsg","data":"QQ=="})", "ZFileWriteMsg", "data",
     "QQ==", "ZGenericResponseMsg"},
    {"upload", kDevice, R"({"className":"ZFileCloseMsg"})", "ZFileCloseMsg", "", "", "ZGenericResponseMsg"},
    {"transfer", kDevice, R"({"version":"3.045","deviceModel":"QMA"})", "TransferMsg", "deviceModel", "QMA",
     "ZVersionInfoMsg"},
    {"remoteinstall", kDevice, R"({"version":"3.045"})", "ZSystemUpdateMsg", "version", "3.045", "ZMessageArray"},
    {"peers", kService, "{}", "ZGenericRequestMsg", "", "", "ZPeersMsg"},
    {"pair", kService, R"({"publicKey":"ab","remove":true})", "ZPairMsg", "publicKey", "ab", "ZPeersMsg"},
    {"cancel", kService, R"({"id":"0123456789abcdef"})", "ZCancelMsg", "id", "0123456789abcdef", nullptr},
    {"forget", kClient, R"({"file":"a.pkg"})", "ZForgetMsg", "file", "a.pkg", "ZGenericResponseMsg"},
    {"inventory", kService, "", "ZGenericRequestMsg", "", "", "ZInventoryMsg"},
    {"trust", kService, "", "ZGenericRequestMsg", "", "", "ZTrustMsg"},
    {"applytrust", kClient, R"({"chain":"{}"})", "ZTrustChainMsg", "chain", "{}", "ZGenericResponseMsg"},
    {"slots", kService, "", "ZGenericRequestMsg", "", "", "ZSlotsMsg"},
    {"confirm", kClient, "", "ZGenericRequestMsg", "", "", "ZGenericResponseMsg"},
    {"revert", kClient, R"({"reason":"loud"})", "ZRevertMsg", "reason", "loud", "ZGenericResponseMsg"},
    {"allow", kClient, R"({"version":"3.1"})", "ZAllowMsg", "version", "3.1", "ZGenericResponseMsg"},
    {"veto", kService, R"({"reason":"loud"})", "ZVetoMsg", "reason", "loud", nullptr},
};

TEST_F(Gateway, CarriesEveryKeywordToItsEndpointAndTheAnswerBack) {
    for (const KeywordCase& row : kKeywords) {
        SCOPED_TRACE(std::string(row.keyword) + " with " + row.request);
        ASSERT_TRUE(Start(kAsDeveloper)) << error << log.All();
        probe->Listen(row.type, row.keyword, [&](const auto&) { return row.answer ? Made(row.answer) : nullptr; });
        const Reply reply = Post(std::string("/v1/") + row.keyword, row.body);
        ASSERT_TRUE(probe->WaitForMessages(1));
        Reply received;
        ZJSONCommStream stream;
        probe->Received().front()->Save(received.body, stream);
        EXPECT_EQ(received.Text("className"), row.request);
        EXPECT_EQ(received.Text(row.key), row.value);
        EXPECT_EQ(reply.status, row.answer ? 200 : 202);
        EXPECT_EQ(reply.Text("className"), row.answer ? row.answer : "");
        EXPECT_EQ(reply.type, reply.body.empty() ? "" : "application/json");
        graph.reset();
    }
}

TEST_F(Gateway, RefusesBadRequestsWithAProblemThatNamesTheField) {
    const std::tuple<const char*, std::string, std::string, int, const char*> rows[]{
        {"POST", "/v1/updatesystem", R"({"version":"3.045")", 400, ""},
        {"POST", "/v1/updatesystem", R"(["3.045"])", 400, ""},
        {"POST", "/v1/updatesystem", "\xff", 400, ""},
        {"POST", "/v1/updatesystem", R"({"a":)" + std::string(50'000, '['), 400, ""},
        {"POST", "/v1/updatesystem", R"({"version":3.045})", 400, "version"},
        {"POST", "/v1/updatesystem", R"({"version":[]})", 400, "version"},
        {"POST", "/v1/updatesystem", std::string("{\"version\":\"3\0\"}", 15), 400, ""},
        {"POST", "/v1/updatesystem", "{\"version\":\"\xff\xfe\"}", 400, ""},
        {"POST", "/v1/updatesystem", R"({"version":"\ud800"})", 400, ""},
        {"POST", "/v1/updatesystem", R"({"reboot":"no"})", 400, "reboot"},
        {"POST", "/v1/checkCompatibility", R"({"boardType":1e400})", 400, "boardType"},
        {"POST", "/v1/checkCompatibility", R"({"boardType":-9223372036854775809})", 400, "boardType"},
        {"POST", "/v1/checkCompatibility", R"({"boardType":99999999999999999999})", 400, "boardType"},
        {"POST", "/v1/checkCompatibility", R"({"boardType":1.5})", 400, "boardType"},
        {"POST", "/v1/checkCompatibility", R"({"boardType":true})", 400, "boardType"},
        {"POST", "/v1/checkCompatibility", R"({"boardType":null})", 400, "boardType"},
        {"POST", "/v1/checkCompatibility", R"({"boardType":{}})", 400, "boardType"},
        {"POST", "/v1/updatesystem", R"({"deviceModel":"Sphinx"})", 400, "deviceModel"},
        {"POST", "/v1/updatesystem", R"({"deviceModel":4294967296})", 400, "deviceModel"},
        {"POST", "/v1/updatesystem", R"({"className":"ZGenericRequestMsg"})", 400, "className"},
        {"POST", "/v1/updatesystem", R"({"className":7})", 400, "className"},
        {"POST", "/v1/pair", R"({"publicKey":"ab","remove":"yes"})", 400, "remove"},
        {"POST", "/v1/upload", "{}", 400, "className"},
        {"POST", "/v1/upload", R"({"className":"ZFileMsg"})", 400, "className"},
        {"POST", "/v1/storagedeviceupdate", R"({"devices":["a",1]})", 400, "devices"},
        {"GET", "/v1/log?lines=many", "", 400, "lines"},
        {"GET", "/v1/log?lines=-1", "", 400, "lines"},
        {"GET", "/v1/log?level=5", "", 400, "level"},
        {"GET", "/v1/log?since=yesterday", "", 400, "since"},
        {"GET", "/v1/events?log=yes", "", 400, "log"},
        {"POST", "/v1/UpdateSystem", "{}", 404, ""},
        {"POST", "/v1/", "{}", 404, ""},
        {"GET", "/v1/" + std::string(4000, 'x'), "", 404, ""},
        {"POST", "/v1/" + std::string(4000, 'x'), "{}", 404, ""},
        {"GET", "/nothing", "", 404, ""},
        {"POST", "/", "", 405, ""},
        {"GET", "/main.js.gz", "", 404, ""},
        {"GET", "/../arbor/page/main.js", "", 404, ""},
        {"GET", "/v1/updatesystem", "", 405, ""},
        {"PUT", "/v1/updatesystem", "{}", 405, ""},
        {"DELETE", "/v1/status", "", 405, ""},
        {"POST", "/v1/events", "{}", 405, ""},
        {"POST", "/v1/upload", std::string(2 * 1024 * 1024 + 1, ' '), 413, ""},
        {"POST", "/v1/transfer", "{}", 503, ""},
        {"POST", "/v1/newFile", "{}", 503, ""},
        {"POST", "/v1/scan", R"({"path":7})", 400, "path"},
        {"POST", "/v1/findupdates", "{}", 504, ""},
    };
    ASSERT_TRUE(Start(std::string(kAsDeveloper) + R"(,"answerTimeoutSeconds":1)")) << error << log.All();
    probe->Listen(kClient, "findupdates");
    probe->Listen(kClient, "updatesystem");
    for (const auto& [method, path, body, status, field] : rows) {
        SCOPED_TRACE(std::string(method) + ' ' + path.substr(0, 30) + ' ' + body.substr(0, 40));
        const Reply reply = Send(method, path, body);
        EXPECT_EQ(reply.status, status);
        EXPECT_EQ(reply.type, "application/problem+json");
        EXPECT_EQ(reply.Text("field"), field) << reply.body;
        EXPECT_NE(reply.Text("detail"), "") << reply.body;
        EXPECT_NE(reply.Text("title"), "") << reply.body;
    }
    EXPECT_TRUE(probe->WaitForMessages(1));
    EXPECT_EQ(probe->Received().size(), 1U) << "a refused request reached the bus";
    EXPECT_THAT(Post("/v1/nosuchkeyword", "{}").Text("detail"), testing::HasSubstr("nosuchkeyword"));
}

TEST_F(Gateway, TakesOddlyFramedBodies) {
    ASSERT_TRUE(Start());
    probe->Listen(kClient, "findupdates", [](const auto&) { return Made("ZMessageArray"); });
    const std::string chunk = "40000\r\n" + std::string(0x40000, ' ') + "\r\n";
    const std::string endless = chunk + chunk + chunk + chunk + chunk + chunk + chunk + chunk + chunk;
    std::string manyHeaders;
    while (manyHeaders.size() < 70'000) {
        manyHeaders += "X-Thing: " + std::to_string(manyHeaders.size()) + "\r\n";
    }
    // What stands behind the first line of the request, and how the answer begins.
    const std::tuple<const char*, std::string, const char*> rows[]{
        {"no body and no length", "\r\n", "HTTP/1.1 200"},
        {"in chunks", "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n", "HTTP/1.1 200"},
        {"a form's type", "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 2\r\n\r\n{}",
         "HTTP/1.1 200"},
        {"a form's parts", "Content-Type: multipart/form-data\r\nContent-Length: 2\r\n\r\n{}", "HTTP/1.1 200"},
        {"a range", "Range: bytes=0-1\r\nContent-Length: 0\r\n\r\n", "HTTP/1.1 200"},
        {"too many chunks", "Transfer-Encoding: chunked\r\n\r\n" + endless, "HTTP/1.1 413"},
        {"a chunk's length of 5 MiB",
         "Transfer-Encoding: chunked\r\n\r\n" + std::string(5 << 20, '0') + "2\r\n{}\r\n0\r\n\r\n", "HTTP/1.1 400"},
        {"too many headers", manyHeaders + "Content-Length: 0\r\n\r\n", "HTTP/1.1 400"},
        {"no header at all", "nonsense\r\n\r\n", "HTTP/1.1 "},
    };
    for (const auto& [name, rest, status] : rows) {
        SCOPED_TRACE(name);
        RawClient client(socket, "POST /v1/findupdates HTTP/1.1\r\nConnection: close\r\n" + rest);
        EXPECT_TRUE(client.WaitFor("\r\n\r\n")) << client.Received();
        EXPECT_TRUE(client.Received().starts_with(status)) << client.Received();
    }
}

TEST_F(Gateway, ServesClientsOfEveryManner) {
    ASSERT_TRUE(Start());
    probe->Listen(kClient, "findupdates", [](const auto&) { return Made("ZMessageArray"); });
    // Behind each answer the connection ends.
    const std::tuple<const char*, std::string, const char*> rows[]{
        {"two requests at once",
         "POST /v1/findupdates HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}"
         "GET /v1/nothing HTTP/1.1\r\nConnection: close\r\n\r\n",
         "HTTP/1.1 200 OK\r\nKeep-Alive: .*ZMessageArray.*HTTP/1.1 404 Not Found\r\nConnection: close\r\n.*"},
        {"one that waits to be invited",
         "POST /v1/findupdates HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n{}",
         "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK.*"},
        {"an old one", "GET /v1/log?lines=1 HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK\r\nConnection: close.*"},
        {"one that writes its address in codes", "GET /v1/lo%67?%6cines=%31 HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK.*"},
        {"one that wants no body", "HEAD /v1/log HTTP/1.0\r\n\r\n",
         "HTTP/1.1 200 OK.*Content-Length: [1-9].*json\r\n\r\n"},
        {"a body that is not asked for",
         "PUT /v1/log HTTP/1.1\r\nContent-Length: 99\r\n\r\nGET /v1/log HTTP/1.1\r\n\r\n",
         "HTTP/1.1 405 .*Allow: GET, HEAD\r\n.*Connection: close\r\n.*This resource takes GET, HEAD[^/]*"},
        {"a long address", "GET /" + std::string(9000, 'x') + " HTTP/1.1\r\n\r\n",
         "HTTP/1.1 414 URI Too Long\r\n.*The address is longer than 8192 bytes.*"},
        {"one of the future", "GET /v1/log HTTP/9.9\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n.*"},
    };
    for (const auto& [name, request, answer] : rows) {
        RawClient client(socket, request);
        client.ReadAll();
        EXPECT_THAT(client.Received(), testing::MatchesRegex(answer)) << name;
    }
}

TEST_F(Gateway, ServesFiftyClientsAtOnce) {
    ASSERT_TRUE(Start());
    probe->Listen(kClient, "compareversions", [](const auto&) { return Made("ZCompareVersionsResultMsg"); });
    std::atomic<int> good = 0;
    std::vector<std::thread> clients;
    for (int count = 0; count < 50; ++count) {
        clients.emplace_back([&] {
            // 503: others took all the room for a while.
            good += WaitUntil([&] { return Post("/v1/compareversions", "{}").status == 200; }) ? 1 : 0;
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(good, 50) << log.All();
}

}  // namespace
