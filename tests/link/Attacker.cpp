// A device whose key is paired, and that means harm: a process of its own, so that its memory is not the victim's.
//   link_attacker PORT VICTIMS-KEY KEY-FILE endless   begins one message and never ends it
//   link_attacker PORT VICTIMS-KEY KEY-FILE rubbish   sends messages that nobody can read, without end
// Says "connected" once it was let in. Ends with 0 when it is cut off.
#include <poll.h>

#include <iostream>

#include "NodeLink/LinkTcp.h"
#include "NodeLink/LinkWire.h"

namespace {

bool WaitFor(const ZFileDescriptor& socket, short events) {
    pollfd entry{socket.Get(), events, 0};
    return ::poll(&entry, 1, -1) == 1;
}

bool SendAll(const ZFileDescriptor& socket, std::string& output) {
    while (!output.empty()) {
        WaitFor(socket, POLLOUT);
        const ssize_t sent = ::send(socket.Get(), output.data(), output.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EAGAIN) {
            return false;
        }
        output.erase(0, sent < 0 ? 0 : static_cast<std::size_t>(sent));
    }
    return true;
}

bool IsLetIn(const ZFileDescriptor& socket, LinkWire& wire) {
    auto news = LinkWire::News::None;
    while (news == LinkWire::News::None && SendAll(socket, wire.Output())) {
        WaitFor(socket, POLLIN);
        const auto room = wire.Room();
        const ssize_t got = ::recv(socket.Get(), room.data(), room.size(), 0);
        if (got == 0 || (got < 0 && errno != EAGAIN)) {
            return false;
        }
        wire.Filled(got < 0 ? 0 : static_cast<std::size_t>(got));
        news = wire.Next();
    }
    return news == LinkWire::News::Open;
}

}  // namespace

int main(int count, char** arguments) {
    const auto keys = count == 5 ? LoadOrMakeLinkKeys(arguments[3]) : ZError("four arguments");
    if (!keys) {
        std::cerr << keys.error().text << '\n';
        return 2;
    }
    const auto victim = NumericTcpAddress(std::string("tcp://127.0.0.1:") + arguments[1]);
    const auto socket = ConnectTcp(*victim);
    LinkWire wire(LinkCurve::Side::Caller, *keys, arguments[2]);
    if (!socket || !IsLetIn(*socket, wire)) {
        std::cerr << "not let in\n";
        return 1;
    }
    std::cout << "connected" << std::endl;
    wire.Put(R"({"kind":"Hello"})", true);
    wire.Put(R"({"className":"ZPeerMsg"})", false);
    const bool endless = std::string(arguments[4]) == "endless";
    const std::string frame(endless ? kLinkPiece : 64, 'x');
    do {
        wire.Put(frame, endless);
    } while (SendAll(*socket, wire.Output()));
    return 0;
}
