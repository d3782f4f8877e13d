#pragma once

#include <gmock/gmock.h>

#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZMessages/Messages.h"
#include "ZMessages/ZJSONCommStream.h"
#include "ZShared/ZFileDescriptor.h"

constexpr auto kClient = ZEndpointType::ClientRequest;
constexpr auto kDevice = ZEndpointType::DeviceRequest;
constexpr auto kService = ZEndpointType::GraphService;

struct Reply {
    int status = 0;  ///< 0: none came
    std::string type;
    std::string body;

    /// A text of the body's JSON object; empty when there is none.
    std::string Text(const std::string& key) const;
};

/// A client on a plain socket, for what a well-behaved library would not send or would not show.
class RawClient {
public:
    RawClient(const std::filesystem::path& socket, const std::string& firstBytes);
    /// To that port of this machine.
    RawClient(std::uint16_t port, const std::string& firstBytes);
    void Send(const std::string& bytes) const;
    /// Reads until `count` occurrences of `text` have come. False at the stream's end or when none comes for long.
    bool WaitFor(const std::string& text, std::size_t count = 1);
    /// Reads all that the other side sends until it says that no more comes.
    void ReadAll();
    /// Reads to the end. False when the other side keeps the connection open for long.
    bool WaitForEnd();
    /// Whether the other side has not closed yet.
    bool IsOpen() const;
    const std::string& Received() const { return m_received; }
    /// Whether what was answered begins with that status.
    bool Says(const char* status) const { return m_received.starts_with(std::string("HTTP/1.1 ") + status); }
    void Close() { m_socket.Reset(); }

private:
    bool Receive();
    ZFileDescriptor m_socket;
    bool m_isByNetwork = false;
    bool m_hasEnded = false;
    std::string m_received;
};

/// Many clients at once.
using Crowd = std::vector<std::unique_ptr<RawClient>>;

std::string PostText(const std::string& path, const std::string& body);

constexpr uid_t kNobody = 65534;

/// Somebody as the kernel knows him. By default a user that every system has, in no group of ours.
struct Identity {
    uid_t user = kNobody;
    std::vector<gid_t> groups{};  ///< supplementary ones
    gid_t group = kNobody;
};

/// Runs `work` on a thread that the kernel takes for somebody else's: a thread may have an identity of its own.
void As(const Identity& identity, const std::function<void()>& work);

/// A graph with a real gateway on a real socket, and a node beside it that a test makes answer.
class Gateway : public testing::Test {
protected:
    /// Starts the graph; `settings` are members of the gateway's record beside the socket's path.
    bool Start(const std::string& settings = "");
    /// Adds a real journal to the graph that runs.
    bool StartJournal();
    void SetUp() override { socket = folder / "deep/gateway.sock"; }

    Reply Get(const std::string& path) { return Send("GET", path, ""); }
    Reply Post(const std::string& path, const std::string& body) { return Send("POST", path, body); }
    Reply Send(const std::string& method, const std::string& path, const std::string& body) const;
    RawClient Events(const std::string& query = "") const;
    Crowd Clients(int count, const std::string& firstBytes, const std::string& ofEachSecond) const;
    Crowd Clients(int count, const std::string& firstBytes) const { return Clients(count, firstBytes, firstBytes); }
    void PublishProgress(int percent, const std::string& text = "");
    /// Waits until the metrics have that sample, with its value.
    void ExpectMetric(const std::string& sample);

    TemporaryFolder folder;
    LogCapture log;
    std::filesystem::path socket;
    std::filesystem::path updatesFolder;  ///< of the graph that is started
    std::string error;
    std::unique_ptr<ZGraph> graph;
    std::shared_ptr<ProbeNode> probe;
};

/// A gateway that other users than this process's may ask.
class GatewayOfUsers : public Gateway {
protected:
    void SetUp() override;
    bool StartForAll(const std::string& settings = "") {
        return Start(R"("socketMode":"0666")" + (settings.empty() ? "" : "," + settings));
    }
};

/// A message of the class with the members that `json` gives.
std::shared_ptr<ZMessage> Made(const std::string& className, const std::string& json = "{}");
