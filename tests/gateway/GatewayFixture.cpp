#include "GatewayFixture.h"

#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "NodeGateway/ZNodeGateway.h"

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
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.string().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << socket;
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
