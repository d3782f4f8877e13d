#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>

#include "DocumentCheck.h"
#include "Fuzz.h"
#include "ZShared/ZFileDescriptor.h"
#include "http/Connection.h"
#include "http/Target.h"

namespace {

using namespace gateway;  // NOLINT(google-build-using-namespace): it is what is fed

/// Answers with what it understood, so that a difference in that can be seen.
class Echo : public HttpHandler {
public:
    std::size_t LargestBody(std::string_view path) const override { return path.size() * 16; }
    bool IsOpen(std::string_view) const override { return false; }
    void OnRefused(std::string_view, int) override {}
    HttpResponse Handle(const HttpRequest& request) override {
        fuzz::Must(request.path.size() <= limits::kTarget, "an address has its bound");
        fuzz::Must(request.body.size() <= LargestBody(request.path), "a body has its bound");
        HttpResponse answer;
        answer.status = CheckDocument(request.body) ? 200 : 400;
        answer.body = request.method + ' ' + request.path + ' ' + TextOf(request, "since") + ' ' + request.body;
        NumberOf(request, "limit", 0);
        return answer;
    }
};

ServerState& Server() {
    static Echo echo;
    static ServerState state(echo, limits::kConnections);
    static const auto guard = boost::asio::make_work_guard(state.io);
    return state;
}

/// All that is answered to `sent`, which comes in pieces of `step` bytes, and ends behind the last one.
std::string Answers(std::string_view sent, std::size_t step) {
    ServerState& server = Server();
    int pair[2];
    fuzz::Must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0, "there is a pair");
    const ZFileDescriptor client(pair[0]);
    Peer peer;
    peer.account = "somebody";
    fuzz::Must(server.connections.Take(peer.account), "what connections had is given back");
    ByteStream::Socket socket(server.io.get_executor());
    socket.assign(ByteStream::Protocol(AF_UNIX, 0), pair[1]);
    auto connection = std::make_shared<Connection>(server, ByteStream(std::move(socket), nullptr),
                                                   std::make_shared<const Peer>(peer), server.connections, nullptr);
    server.open.insert(connection);
    connection->Start();
    connection.reset();
    std::string answers;
    bool ended = false;
    while (!server.open.empty()) {
        const ssize_t count = ::send(client.Get(), sent.data(), std::min(step, sent.size()), MSG_NOSIGNAL);
        sent.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
        if (!ended && (sent.empty() || (count < 0 && errno != EAGAIN))) {
            ::shutdown(client.Get(), SHUT_WR);
            ended = true;
        }
        ended ? server.io.run_one() : server.io.poll();
        std::array<char, 65536> buffer{};
        for (ssize_t read = 0; (read = ::recv(client.Get(), buffer.data(), buffer.size(), 0)) > 0;) {
            answers.append(buffer.data(), static_cast<std::size_t>(read));
        }
    }
    while (server.io.poll() > 0) {
    }
    fuzz::Must(server.bytes.Taken() == 0 && server.connections.Taken() == 0, "nothing is charged any more");
    return answers;
}

}  // namespace

// What a program sends to the gateway's socket: several requests in one connection, cut anywhere, in pieces of any
// size.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest = fuzz::Text(data, size);
    const std::size_t step = fuzz::TakeByte(rest) % 64U + 1;
    const std::string whole = Answers(rest, rest.size() + 1);
    fuzz::Must(whole.empty() || whole.starts_with("HTTP/1.1 "), "an answer is one");
    fuzz::Must(Answers(rest, std::max(step, rest.size() / 64)) == whole, "pieces make no difference");
    return 0;
}
