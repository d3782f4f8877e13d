// The gateway's door to the network: who gets in, with TLS and without, and what strangers may cost.

#include <netinet/in.h>
#include <sys/socket.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/json.hpp>

#include "GatewayFixture.h"
#include "NodeBase/ZOperation.h"

namespace {

using namespace testing;
namespace asio = boost::asio;
namespace json = boost::json;

constexpr const char* kLooker = "looker-0123456789abcdefghijklmnopqrs";
constexpr const char* kOperator = "operator-0123456789abcdefghijklmnop";
constexpr const char* kAdmin = "admin-0123456789abcdefghijklmnopqrst";
constexpr const char* kWrong = "wrong-0123456789abcdefghijklmnopqrst";
constexpr const char* kTokens = R"(# who may ask
    eye   look       looker-0123456789abcdefghijklmnopqrs

ci      operate    operator-0123456789abcdefghijklmnop
boss	administer	admin-0123456789abcdefghijklmnopqrst)";

/// A port that nobody has.
std::uint16_t FreePort() {
    const ZFileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(::getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    return ntohs(address.sin_port);
}

std::string Bearer(const std::string& token) {
    return "Authorization: Bearer " + token + "\r\n";
}

/// A request after which the server closes.
std::string RequestText(const std::string& method, const std::string& path, const std::string& headers,
                        const std::string& body = "") {
    return method + " " + path + " HTTP/1.1\r\n" + headers +
           "Connection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string kHost = "Host: localhost\r\n";

/// A client that speaks TLS, up to that version.
class TlsClient {
public:
    explicit TlsClient(std::uint16_t port, int version = TLS1_3_VERSION) : m_stream(m_io, m_context) {
        ::SSL_CTX_set_security_level(m_context.native_handle(), 0);
        ::SSL_set_security_level(m_stream.native_handle(), 0);
        ::SSL_set_max_proto_version(m_stream.native_handle(), version);
        m_stream.next_layer().connect({asio::ip::address_v4::loopback(), port});
        m_stream.handshake(asio::ssl::stream_base::client, failure);
    }
    void Send(const std::string& bytes) { asio::write(m_stream, asio::buffer(bytes), failure); }
    /// Reads until the text has come, or the end.
    bool WaitFor(const std::string& text) {
        std::array<char, 4096> bytes{};
        while (received.find(text) == std::string::npos && !failure) {
            received.append(bytes.data(), m_stream.read_some(asio::buffer(bytes), failure));
        }
        return received.find(text) != std::string::npos;
    }

    boost::system::error_code failure;
    std::string received;

private:
    asio::io_context m_io;
    asio::ssl::context m_context{asio::ssl::context::tls_client};
    asio::ssl::stream<asio::ip::tcp::socket> m_stream;
};

class GatewayNetwork : public Gateway {
protected:
    void SetUp() override {
        Gateway::SetUp();
        folder.Write("tokens", kTokens, 0600);
    }
    std::string Listen(const std::string& more = "") {
        return R"("listen":"127.0.0.1:)" + std::to_string(port) + R"(","tokenFile":")" + (folder / "tokens").string() +
               '"' + (more.empty() ? "" : "," + more);
    }
    /// Settings with a certificate, made now, whose names begin with `name`.
    std::string Certificate(const std::string& name = "tls") {
        const std::string base = (folder / name).string();
        const std::string make =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj /CN=a "
            "-keyout " +
            base + ".key -out " + base + ".pem 2> /dev/null && chmod 600 " + base + ".key";
        EXPECT_EQ(std::system(make.c_str()), 0);
        return R"("certificateFile":")" + base + R"(.pem","privateKeyFile":")" + base + R"(.key")";
    }
    /// The whole answer over the network.
    std::string Ask(const std::string& request) const {
        RawClient client(port, request);
        client.ReadAll();
        return client.Received();
    }
    std::string AskAs(const std::string& token, const std::string& path, const std::string& body) const {
        return Ask(RequestText(body.empty() ? "GET" : "POST", path, kHost + Bearer(token), body));
    }
    bool HasNoListeners() { return Get("/v1/metrics").body.find("arbor_event_clients 0\n") != std::string::npos; }

    const std::uint16_t port = FreePort();
};

TEST_F(GatewayNetwork, TakesRequestsWithATokenForAHostOfItsOwnFromItsOwnPages) {
    ASSERT_TRUE(Start(Listen(R"("hostNames":["Device.example"])"))) << log.All();
    const std::string good = Bearer(kLooker);
    const std::tuple<const char*, std::string, const char*> rows[]{
        {"/v1/log", kHost + good, "200"},
        {"/v1/log", kHost + "authorization: bearer " + kLooker + "\r\n", "200"},
        {"/v1/log", kHost, "401"},
        {"/v1/nothing", kHost, "401"},
        {"/v1/log", kHost + Bearer(kWrong), "401"},
        {"/v1/log", kHost + Bearer(std::string(kLooker) + "x"), "401"},
        {"/v1/log", kHost + "Authorization: Basic " + kLooker + "\r\n", "401"},
        {"/v1/log", kHost + good + good, "401"},
        {"/v1/log?access_token=looker-0123456789abcdefghijklmnopqrs", kHost, "401"},
        {"/v1/log", "Host: 127.0.0.1:1\r\n" + good, "200"},
        {"/v1/log", "Host: [::1]:8080\r\n" + good, "200"},
        {"/v1/log", "Host: DEVICE.Example:443\r\n" + good, "200"},
        {"/v1/log", "Host: evil.example\r\n" + good, "421"},
        {"/v1/log", "Host: localhost.evil.example\r\n" + good, "421"},
        {"/v1/log", "Host: localhost:1@evil\r\n" + good, "421"},
        {"/v1/log", "Host: 0.0.0.0\r\n" + good, "421"},
        {"/v1/log", "Host:\r\n" + good, "421"},
        {"/v1/log", good, "400"},
        {"/v1/log", kHost + "Host: evil.example\r\n" + good, "400"},
        {"/v1/log", kHost + "Origin: http://localhost:3000\r\n" + good, "200"},
        {"/v1/log", kHost + "Origin: https://device.example\r\n" + good, "200"},
        {"/v1/log", kHost + "Origin: http://evil.example\r\n" + good, "403"},
        {"/v1/log", kHost + "Origin: null\r\n" + good, "403"},
        {"/v1/log", kHost + "Origin: http://localhost\r\nOrigin: http://evil.example\r\n" + good, "403"},
    };
    for (const auto& [path, headers, status] : rows) {
        const std::string answer = Ask(RequestText("GET", path, headers));
        EXPECT_THAT(answer, StartsWith(std::string("HTTP/1.1 ") + status)) << path << '\n' << headers;
        EXPECT_EQ(answer.find("WWW-Authenticate: Bearer") != std::string::npos, std::string(status) == "401");
        EXPECT_THAT(answer, Not(HasSubstr("Access-Control")));
    }
    EXPECT_THAT(Ask(RequestText("OPTIONS", "/v1/log", kHost + "Origin: http://localhost\r\n")), HasSubstr(" 401 "));
    EXPECT_THAT(log.All(), Not(HasSubstr(kLooker)));
    // A connection belongs to nobody: each request shows its own token.
    RawClient client(port, "GET /v1/log HTTP/1.1\r\n" + kHost + good + "\r\n");
    EXPECT_TRUE(client.WaitFor("HTTP/1.1 200"));
    client.Send("POST /v1/pair HTTP/1.1\r\nContent-Length: 0\r\n" + kHost + Bearer(kAdmin) + "\r\n");
    EXPECT_TRUE(client.WaitFor("HTTP/1.1 503"));  // nobody serves it here
    client.Send("GET /v1/log HTTP/1.1\r\n" + kHost + "\r\n");
    EXPECT_TRUE(client.WaitFor("HTTP/1.1 401") && client.WaitForEnd());
    EXPECT_EQ(Get("/v1/log").status, 200) << "the UNIX socket takes no token";
}

TEST_F(GatewayNetwork, GivesATokenItsRoleAndWritesItsNameDown) {
    ASSERT_TRUE(Start(Listen(R"("developerMode":true)"))) << log.All();
    ASSERT_TRUE(StartJournal());
    ZGuarded<std::shared_ptr<ZOperation>> begun;
    probe->Listen(kClient, "updatesystem", [&](const std::shared_ptr<ZMessage>& request) {
        begun.Exchange(probe->BeginOperation({.kind = ZOperationKind::Install}, request.get()));
        return Made("ZVersionInfoMsg");
    });
    probe->Listen(kService, "pair", [](const auto&) { return Made("ZPeersMsg"); });
    probe->Listen(kService, "cancel");
    const std::tuple<const char*, const char*, const char*> rows[]{
        {kLooker, "/v1/updatesystem", "403"}, {kLooker, "/v1/pair", "403"},   {kOperator, "/v1/pair", "403"},
        {kAdmin, "/v1/pair", "200"},          {kAdmin, "/v1/newFile", "403"}, {kOperator, "/v1/updatesystem", "200"},
    };
    for (const auto& [token, path, status] : rows) {
        EXPECT_THAT(AskAs(token, path, "{}"), StartsWith(std::string("HTTP/1.1 ") + status)) << path;
    }
    EXPECT_THAT(AskAs(kLooker, "/v1/pair", "{}"), HasSubstr(R"(you (token eye) have only the role \"look\")"));
    ASSERT_TRUE(begun.Copy());
    const std::string id = ToStdString(begun.Copy()->Id());
    EXPECT_EQ(json::parse(Get("/v1/operations/" + id).body).at("asker").as_string(), "token ci");
    EXPECT_THAT(AskAs(kOperator, "/v1/cancel", R"({"id":")" + id + "\"}"), HasSubstr(" 202 ")) << "it is its own job";
    begun.Copy()->Succeed();
    std::map<std::string, json::value> orders;  // of each token and keyword
    const json::value told = json::parse(Get("/v1/orders").body);
    for (const auto& order : told.at("orders").as_array()) {
        orders[std::string(order.at("user").as_string()) + ' ' + std::string(order.at("keyword").as_string())] = order;
    }
    EXPECT_EQ(orders.size(), 7U);
    ASSERT_TRUE(orders.contains("token ci updatesystem") && orders.contains("token eye pair"));
    const json::value& obeyed = orders["token ci updatesystem"];
    EXPECT_TRUE(obeyed.at("accepted").as_bool());
    EXPECT_EQ(obeyed.at("operationId").as_string(), id);
    EXPECT_EQ(obeyed.at("program").as_string(), "127.0.0.1");
    EXPECT_EQ(obeyed.at("userId").as_int64(), -1);
    EXPECT_FALSE(orders["token eye pair"].at("accepted").as_bool());
}

TEST_F(GatewayNetwork, SaysWhatItCanNotServeWith) {
    const std::string line = std::string("\nci look ") + kWrong;
    const std::tuple<std::string, unsigned, const char*> files[]{
        {kTokens, 0640, "tokens: others than its owner may use it"},
        {kTokens, 0604, "tokens: others than its owner may use it"},
        {"# nobody\n\n", 0600, "tokens: it holds no token"},
        {kTokens + line, 0600, "tokens:6: a line before has the same name or token"},
        {std::string("other look ") + kLooker + "\n" + kTokens, 0600, "tokens:3: a line before has the same"},
        {"ci look 0123456789abcdefghijklmnopqrstu", 0600, "tokens:1: behind the role comes a token of 32"},
        {"\nci look 0123456789abcdefghijklmnopqrstuvwx=", 0600, "tokens:2: behind the role comes a token of 32"},
        {std::string("ci nodes ") + kWrong, 0600, "tokens:1: behind the name comes look, operate or administer"},
        {std::string("c/i look ") + kWrong, 0600, "tokens:1: a name is"},
        {std::string("ci look ") + kWrong + " x", 0600, "tokens:1: there is more behind the token"},
    };
    for (const auto& [tokens, mode, problem] : files) {
        folder.Write("tokens", tokens, mode);
        EXPECT_FALSE(Start(Listen())) << problem;
        EXPECT_THAT(log.Lines().back().text, AllOf(HasSubstr("(\"listen\")"), HasSubstr(problem)));
        EXPECT_THAT(log.All(), Not(HasSubstr(kWrong)));
        std::filesystem::remove(folder / "tokens");
    }
    EXPECT_FALSE(Start(Listen()));
    EXPECT_THAT(log.Lines().back().text, HasSubstr("tokens: No such file"));
    std::string many;
    for (int number = 0; number < 65; ++number) {
        many += "n" + std::to_string(number) + " look " + std::to_string(1000 + number) + kWrong + '\n';
    }
    folder.Write("tokens", many, 0600);
    EXPECT_FALSE(Start(Listen()));
    EXPECT_THAT(log.Lines().back().text, HasSubstr("tokens:65: there are more than 64 tokens"));
    folder.Write("tokens", kTokens, 0600);
    const std::string tls = Certificate();
    const std::string others = Certificate("other");
    std::filesystem::copy_file(folder / "other.key", folder / "tls.key",
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_FALSE(Start(Listen(tls)));
    EXPECT_THAT(log.Lines().back().text, HasSubstr("tls.key: it is not the certificate's key"));
    std::filesystem::permissions(folder / "other.key", std::filesystem::perms(0644));
    EXPECT_FALSE(Start(Listen(others)));
    EXPECT_THAT(log.Lines().back().text, HasSubstr("other.key: others than its owner may use it"));
    ASSERT_TRUE(Start(Listen())) << log.All();
    const auto living = std::move(graph);
    socket = folder / "second.sock";
    EXPECT_FALSE(Start(Listen()));
    EXPECT_THAT(log.Lines().back().text, HasSubstr("Can't serve on 127.0.0.1:" + std::to_string(port) +
                                                   " (\"listen\"): Address already in use"));
    EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST_F(GatewayNetwork, HasItsSettingsCheckedWithTheirLine) {
    const std::string tls = R"(,"certificateFile":"/c")";
    // The complaint is empty where there is none.
    const std::tuple<std::string, std::string, const char*> rows[]{
        {"127.0.0.1:80", "", ""},
        {"[::1]:65535", "", ""},
        {"0.0.0.0:80", tls + R"(,"privateKeyFile":"/k")", ""},
        {"[::]:80", tls + R"(,"privateKeyFile":"/k")", ""},
        {"0.0.0.0:80", "", "takes a \"certificateFile\""},
        {"192.168.1.1:80", "", "takes a \"certificateFile\""},
        {"[::ffff:127.0.0.1]:80", "", "takes a \"certificateFile\""},
        {"127.0.0.1:80", tls, "\"certificateFile\" takes its \"privateKeyFile\""},
        {"127.0.0.1:80", R"(,"privateKeyFile":"/k")", "\"privateKeyFile\" takes its \"certificateFile\""},
        {"127.0.0.1:80", R"(,"tokenFile":"")", "takes a \"tokenFile\""},
        {"127.0.0.1:80", R"(,"tokenFile":"tokens")", "it must be an absolute path"},
        {"127.0.0.1:80", R"(,"hostNames":["a:80"])", "it must be a host's name"},
        {"127.0.0.1:0", "", "it must be an address with its port"},
        {"127.0.0.1:65536", "", "it must be an address with its port"},
        {"127.0.0.1", "", "it must be an address with its port"},
        {"localhost:80", "", "it must be an address with its port"},
        {"::1:80", "", "it must be an address with its port"},
    };
    for (const auto& [listen, more, complaint] : rows) {
        const std::string tokens = more.find("tokenFile") == std::string::npos ? R"(,"tokenFile":"/t")" : "";
        const auto file = folder.Write("graph.json", R"({"libraries":["libNodeGateway.so"],"nodes":[{"name":"Gateway",)"
                                                     "\"class\":\"ZNodeGateway\",\"config\":{\n\"listen\":\"" +
                                                         listen + '"' + tokens + more + "}}]}");
        const auto output = folder / "output";
        const std::string command =
            std::string(ARBORD) + " --check --graph " + file.string() + " > " + output.string() + " 2>&1";
        EXPECT_EQ(std::system(command.c_str()) == 0, *complaint == '\0') << listen << ReadText(output);
        EXPECT_THAT(ReadText(output), HasSubstr(complaint)) << listen;
        EXPECT_EQ(ReadText(output).find(file.string() + ":2: ") != std::string::npos, *complaint != '\0');
    }
}

TEST_F(GatewayNetwork, SpeaksTlsOnlyOnceThereIsACertificate) {
    ASSERT_TRUE(Start(Listen(Certificate()))) << log.All();
    RawClient silent(port, "");
    RawClient half(port, std::string("\x16\x03\x01\x02", 4));
    RawClient plain(port, RequestText("GET", "/v1/log", kHost + Bearer(kLooker)));
    EXPECT_TRUE(plain.WaitForEnd());
    EXPECT_THAT(plain.Received(), Not(HasSubstr("HTTP/1.1")));
    for (const int version : {TLS1_VERSION, TLS1_1_VERSION}) {
        EXPECT_TRUE(TlsClient(port, version).failure);
    }
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        TlsClient client(port, version);
        client.Send("GET /v1/log HTTP/1.1\r\n" + kHost + Bearer(kLooker) + "\r\n");
        EXPECT_TRUE(client.WaitFor("HTTP/1.1 200")) << client.failure.message();
        client.Send(RequestText("POST", "/v1/updatesystem", kHost, std::string(60'000, 'x')));
        EXPECT_FALSE(client.WaitFor("\nnothing"));
        EXPECT_THAT(client.received, HasSubstr("HTTP/1.1 401"));
        EXPECT_EQ(client.failure, asio::error::eof) << "the end is told: " << client.failure.message();
    }
    EXPECT_TRUE(silent.WaitForEnd() && half.WaitForEnd()) << "a handshake that never ends";
}

TEST_F(GatewayNetwork, StreamsEventsAndKnowsWhenAListenerHasGone) {
    const std::string request = "GET /v1/events HTTP/1.1\r\n" + kHost + Bearer(kLooker) + "\r\n";
    ASSERT_TRUE(Start(Listen())) << log.All();
    auto client = std::make_unique<RawClient>(port, request);
    EXPECT_TRUE(client->WaitFor(": live"));
    PublishProgress(35);
    EXPECT_TRUE(client->WaitFor("\"percent\":35"));
    client->Send("what is not asked for");
    client.reset();
    EXPECT_TRUE(WaitUntil([&] { return HasNoListeners(); }));
    RawClient last(port, request);
    EXPECT_TRUE(last.WaitFor(": live"));
    RawClient half(port, "GET /v1/st");
    EXPECT_EQ(graph->Stop(), ZGraphEnd::Agreed);
    EXPECT_TRUE(last.WaitForEnd() && half.WaitForEnd());
    EXPECT_TRUE(last.Received().ends_with("0\r\n\r\n"));

    ASSERT_TRUE(Start(Listen(Certificate()))) << log.All();
    auto encrypted = std::make_unique<TlsClient>(port);
    encrypted->Send(request);
    EXPECT_TRUE(encrypted->WaitFor(": live"));
    const std::string large(5000, 'x');
    for (int percent = 0; percent < 100; ++percent) {
        PublishProgress(percent, large);
    }
    EXPECT_TRUE(encrypted->WaitFor("\"percent\":99"));
    encrypted.reset();
    EXPECT_TRUE(WaitUntil([&] { return HasNoListeners(); }));
    TlsClient stalled(port);
    stalled.Send(request);
    EXPECT_TRUE(stalled.WaitFor(": live"));
    EXPECT_TRUE(WaitUntil([&] {
        for (int count = 0; count < 20; ++count) {
            PublishProgress(count, large + large + large + large);
        }
        return HasNoListeners();
    })) << "a listener that takes nothing";
    EXPECT_FALSE(TlsClient(port).failure);
}

TEST_F(GatewayNetwork, SlowsDownWhoeverGuessesAndServesOthersMeanwhile) {
    ASSERT_TRUE(Start(Listen())) << log.All();
    const std::string request = RequestText("GET", "/v1/log", kHost + Bearer(kWrong));
    std::string refused;
    EXPECT_TRUE(WaitUntil([&] {
        std::vector<std::unique_ptr<RawClient>> clients;
        for (int count = 0; count < 12; ++count) {
            clients.push_back(std::make_unique<RawClient>(port, request));
        }
        EXPECT_THAT(AskAs(kLooker, "/v1/log", ""), StartsWith("HTTP/1.1 200"));
        for (const auto& client : clients) {
            client->ReadAll();
            EXPECT_THAT(client->Received(), MatchesRegex("HTTP/1.1 4(01|29) .*"));
            refused = client->Received().starts_with("HTTP/1.1 429") ? client->Received() : refused;
        }
        return !refused.empty();
    }));
    EXPECT_THAT(refused, HasSubstr("Retry-After: 1"));
    EXPECT_EQ(log.Count("Somebody at 127.0.0.1 asked with a token that is not known"), 1);
}

TEST_F(GatewayNetwork, BoundsWhatStrangersHold) {
    ASSERT_TRUE(Start(Listen())) << log.All();
    RawClient known(port, "GET /v1/log HTTP/1.1\r\n" + kHost + Bearer(kLooker) + "\r\n");
    EXPECT_TRUE(known.WaitFor("HTTP/1.1 200"));
    std::vector<std::unique_ptr<RawClient>> strangers;
    for (int count = 0; count < 64; ++count) {
        strangers.push_back(std::make_unique<RawClient>(port, count % 2 == 0 ? "" : "GET /v1/st"));
    }
    EXPECT_TRUE(strangers.back()->WaitForEnd()) << "one address has its share";
    known.Send("GET /v1/log HTTP/1.1\r\n" + kHost + Bearer(kLooker) + "\r\n");
    EXPECT_TRUE(known.WaitFor("HTTP/1.1 200", 2));
    EXPECT_EQ(Get("/v1/log").status, 200);
    for (const auto& stranger : strangers) {
        EXPECT_TRUE(stranger->WaitForEnd()) << "a head that comes by drops, or not at all";
    }
    EXPECT_THAT(AskAs(kLooker, "/v1/log", ""), StartsWith("HTTP/1.1 200"));
}

}  // namespace
