#include <thread>
#include <zmq.hpp>

#include "Benches.h"
#include "LinkDevice.h"
#include "ZMessages/ZJSONCommStream.h"

namespace {

constexpr const char* kAnyPort = "tcp://127.0.0.1:*";
constexpr int kPatienceMilliseconds = 30'000;

std::string TextOf(const ZMessage& message) {
    ZJSONCommStream stream;
    std::string text;
    message.Save(text, stream);
    return text;
}

std::shared_ptr<ZFileWriteMsg> MakeRequest(std::string_view data) {
    auto request = Z_MAKE(ZFileWriteMsg);
    request->m_FilePath = "arbor_qm.pkg";
    request->m_Data = data;
    return request;
}

/// The data of a request that is `bytes` long as a whole.
std::string DataFor(std::size_t bytes) {
    return std::string(bytes - TextOf(*MakeRequest({})).size(), 'A');
}

/// An address of this machine that nobody listens on now.
std::string FreeAddress() {
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::rep);
    socket.bind(kAnyPort);
    return socket.get(zmq::sockopt::last_endpoint);
}

/// Times requests one after the other, but for a first one: a connection is slow to begin.
template <typename Ask>
void TimeRequests(benchmark::State& state, Ask ask) {
    bool answered = ask();
    for ([[maybe_unused]] auto _ : state) {
        answered = answered && ask();
        if (!answered) {
            state.SkipWithError("a request was not answered");
            break;
        }
    }
    CountItems(state, 1);
}

void AskDevice(benchmark::State& state, std::size_t bytes) {
    const Scratch scratch;
    const LinkIdentity host(scratch, "C1");
    const LinkIdentity accessory(scratch, "P1");
    const std::string address = FreeAddress();
    const LinkDevice answering(accessory, host, address, LinkDevice::Role::Listens);
    LinkDevice asking(host, accessory, address, LinkDevice::Role::Calls);
    asking.WaitForOther();
    const std::string data = DataFor(bytes);
    TimeRequests(state, [&] {
        const auto answer = cast_shared<ZGenericResponseMsg>(asking.Ask(MakeRequest(data)));
        return answer && answer->m_bSuccess;
    });
}

using KeyText = std::array<char, 41>;
struct KeyPair {
    KeyPair() { ::zmq_curve_keypair(publicKey.data(), secretKey.data()); }
    KeyText publicKey{};
    KeyText secretKey{};
};

/// One side of an encrypted connection with nothing around it; as a device, with a thread for the network of its own.
struct BareSide {
    explicit BareSide(zmq::socket_type type) : socket(context, type) {
        socket.set(zmq::sockopt::linger, 0);
        socket.set(zmq::sockopt::rcvtimeo, kPatienceMilliseconds);
        socket.set(zmq::sockopt::sndtimeo, kPatienceMilliseconds);
        socket.set(zmq::sockopt::curve_secretkey, keys.secretKey.data());
    }
    KeyPair keys;
    zmq::context_t context;
    zmq::socket_t socket;
};

/// Answers each request until an empty one, or nothing, comes.
void AnswerBare(zmq::socket_t& socket, const std::string& answer) {
    zmq::message_t asker;
    zmq::message_t request;
    while (socket.recv(asker) && socket.recv(request) && !request.empty()) {
        socket.send(asker, zmq::send_flags::sndmore);
        socket.send(zmq::message_t(answer.data(), answer.size()), zmq::send_flags::none);
    }
}

void AskBare(benchmark::State& state, std::size_t bytes) {
    BareSide accessory(zmq::socket_type::router);
    accessory.socket.set(zmq::sockopt::curve_server, true);
    accessory.socket.bind(kAnyPort);
    BareSide host(zmq::socket_type::dealer);
    host.socket.set(zmq::sockopt::curve_publickey, host.keys.publicKey.data());
    host.socket.set(zmq::sockopt::curve_serverkey, accessory.keys.publicKey.data());
    host.socket.connect(accessory.socket.get(zmq::sockopt::last_endpoint));
    const std::string answer = TextOf(*Z_MAKE(ZGenericResponseMsg));
    const std::jthread answering([&] { AnswerBare(accessory.socket, answer); });
    const std::string request(bytes, 'A');
    zmq::message_t received;
    TimeRequests(state, [&] {
        return host.socket.send(zmq::message_t(request.data(), request.size()), zmq::send_flags::none) &&
               host.socket.recv(received);
    });
    host.socket.send(zmq::message_t(), zmq::send_flags::none);
}

}  // namespace

void AddLink(Report& report) {
    for (const auto& [size, bytes] : {std::pair("150 B", 150U), std::pair("1 MB", 1'000'000U)}) {
        const std::string name = "link/" + std::to_string(bytes);
        Register(name + "/device", [bytes = bytes](benchmark::State& state) { AskDevice(state, bytes); });
        Register(name + "/bare", [bytes = bytes](benchmark::State& state) { AskBare(state, bytes); });
        report.Add({std::string("link: request of ") + size + " and answer", name + "/device", name + "/bare",
                    Quantity::Time, bytes == 150 ? 2.5 : 1.3});
    }
}
