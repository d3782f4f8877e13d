#include "GatewayFixture.h"

#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "NodeGateway/ZNodeGateway.h"
#include "ZNodeJournal.h"
#include "ZShared/ZUnixAddress.h"

std::string Reply::Text(const std::string& key) const {
    ZJSONCommStream stream;
    ZString value;
    stream.LoadText(body);
    stream.ReadString(key, value);
    return ToStdString(value);
}

std::shared_ptr<ZMessage> Made(const std::string& className, const std::string& json) {
    auto message = cast_shared<ZMessage>(ZShared::ZFactory::Instance().CreateShared(className));
    ZJSONCommStream stream;
    EXPECT_TRUE(message && stream.LoadText(json) && message->Deserialize(stream)) << className << stream.Error();
    return message;
}

RawClient::RawClient(const std::filesystem::path& socket, const std::string& firstBytes)
    : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const auto address = ZUnixAddress::Of(socket.string());
    EXPECT_EQ(::connect(m_socket.Get(), address->Get(), ZUnixAddress::Size()), 0) << socket;
    Send(firstBytes);
}

RawClient::RawClient(std::uint16_t port, const std::string& firstBytes)
    : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_isByNetwork(true) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << port;
    Send(firstBytes);
}

void RawClient::Send(const std::string& bytes) const {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::send(m_socket.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0) {
            return;
        }
        sent += static_cast<std::size_t>(count);
    }
}

bool RawClient::Receive() {
    pollfd entry{m_socket.Get(), POLLIN, 0};
    char bytes[16 * 1024];
    errno = 0;
    const ssize_t count = ::poll(&entry, 1, 30'000) > 0 ? ::recv(m_socket.Get(), bytes, sizeof bytes, 0) : -1;
    m_received.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
    m_hasEnded = count == 0 || (count < 0 && errno == ECONNRESET);
    return count > 0;
}

bool RawClient::WaitFor(const std::string& text, std::size_t count) {
    const auto found = [&] {
        std::size_t seen = 0;
        for (auto at = m_received.find(text); at != std::string::npos; at = m_received.find(text, at + 1)) {
            ++seen;
        }
        return seen >= count;
    };
    while (!found()) {
        if (!Receive()) {
            return false;
        }
    }
    return true;
}

void RawClient::ReadAll() {
    while (Receive()) {
    }
}

bool RawClient::WaitForEnd() {
    ReadAll();
    if (m_isByNetwork) {
        return m_hasEnded;
    }
    // The server ends its sending side before it closes: the hang-up may come a little later than the last byte.
    pollfd entry{m_socket.Get(), 0, 0};
    return ::poll(&entry, 1, 30'000) > 0;
}

bool RawClient::IsOpen() const {
    pollfd entry{m_socket.Get(), 0, 0};
    return ::poll(&entry, 1, 0) == 0;
}

bool Gateway::Start(const std::string& settings) {
    const auto config = Made("ZNodeGatewayCfg", "{\"socketPath\":\"" + socket.string() + "\"" +
                                                    (settings.empty() ? "" : ",") + settings + "}");
    const auto core = ZMakeShared<ZCoreConfigParams>();
    core->m_Files.m_UpdatesFolder = ToZString(updatesFolder.string());
    graph = std::make_unique<ZGraph>(core);
    auto started = graph->AddNode("ProbeNode", "probe", nullptr);
    started = started ? graph->AddNode("ZNodeGateway", "gateway", cast_shared<ZNodeGatewayCfg>(config)) : started;
    started = started ? graph->Start() : started;
    error = ErrorOf(started);
    if (!started) {
        return false;
    }
    probe = cast_shared<ProbeNode>(graph->Node("probe"));
    return true;
}

bool Gateway::StartJournal() {
    const auto record = ZMakeShared<ZNodeJournalCfg>("Journal");
    record->m_DatabaseFile = ToZString((folder / "journal.sqlite").string());
    return graph->AddNode("ZNodeJournal", "Journal", record) && graph->StartNode("Journal");
}

Reply Gateway::Send(const std::string& method, const std::string& path, const std::string& body) const {
    httplib::Client client(socket.string());
    client.set_address_family(AF_UNIX);
    client.set_read_timeout(60);
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.body = body;
    const auto result = client.send(request);
    return result ? Reply{result->status, result->get_header_value("Content-Type"), result->body} : Reply{};
}

RawClient Gateway::Events(const std::string& query) const {
    RawClient client(socket, "GET /v1/events" + query + " HTTP/1.1\r\nHost: arbor\r\n\r\n");
    EXPECT_TRUE(client.WaitFor("\r\n\r\n"));
    return client;
}

void Gateway::PublishProgress(int percent, const std::string& text) {
    const auto message = ZMakeShared<InstallProgressMsg>();
    message->m_Percent = percent;
    message->m_Message = text;
    EXPECT_TRUE(probe->Publish(probe->GetEndpoint(ZEndpointType::Progress, "", 0), message));
}

Crowd Gateway::Clients(int count, const std::string& firstBytes, const std::string& ofEachSecond) const {
    Crowd clients;
    for (int number = 0; number < count; ++number) {
        clients.push_back(std::make_unique<RawClient>(socket, number % 2 == 0 ? firstBytes : ofEachSecond));
    }
    return clients;
}

void Gateway::ExpectMetric(const std::string& sample) {
    std::string metrics;
    EXPECT_TRUE(WaitUntil([&] {
        metrics = Get("/v1/metrics").body;
        return metrics.find('\n' + sample + '\n') != std::string::npos;
    })) << sample
        << " is not in\n"
        << metrics;
}

void GatewayOfUsers::SetUp() {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be somebody else too";
    }
    Gateway::SetUp();
    std::filesystem::permissions(folder.Path(), std::filesystem::perms(0755));
}

std::string PostText(const std::string& path, const std::string& body) {
    return "POST " + path + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

void As(const Identity& identity, const std::function<void()>& work) {
    std::thread([&] {
        EXPECT_EQ(::syscall(SYS_setgroups, identity.groups.size(), identity.groups.data()), 0);
        EXPECT_EQ(::syscall(SYS_setresgid, -1, identity.group, -1), 0);
        EXPECT_EQ(::syscall(SYS_setresuid, -1, identity.user, -1), 0);
        work();
    }).join();
}
