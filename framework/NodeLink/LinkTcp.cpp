#include "NodeLink/LinkTcp.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <regex>

namespace {

constexpr std::string_view kScheme = "tcp://";
constexpr std::size_t kLongestAddress = 255;
constexpr int kWaitingCallers = 128;

/// What the resolver says about an address, or about why it says nothing.
ZResult<TcpAddress> LookUp(const std::string& text, int flags) {
    if (!IsTcpAddress(text)) {
        return ZError("not an address");
    }
    const std::size_t colon = text.rfind(':');
    std::string host = text.substr(kScheme.size(), colon - kScheme.size());
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    addrinfo hints{};
    hints.ai_family = host == "*" ? AF_INET : AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV | (host == "*" ? AI_PASSIVE : 0);
    addrinfo* found = nullptr;
    const int failure = ::getaddrinfo(host == "*" ? nullptr : host.c_str(), text.c_str() + colon + 1, &hints, &found);
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, ::freeaddrinfo);
    if (failure != 0) {
        return ZError(::gai_strerror(failure));
    }
    TcpAddress address;
    address.size = found->ai_addrlen;
    std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
    return address;
}

ZFileDescriptor OpenSocket(const TcpAddress& address) {
    ZFileDescriptor opened(::socket(address.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return opened;
}

void SendAtOnce(const ZFileDescriptor& socket) {
    const int on = 1;
    ::setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

std::string TcpAddress::Host() const {
    std::array<char, NI_MAXHOST> host{};
    return ::getnameinfo(Get(), size, host.data(), host.size(), nullptr, 0, NI_NUMERICHOST) == 0 ? host.data() : "?";
}

bool IsTcpAddress(const std::string& text) {
    static const std::regex form("tcp://(\\*|[A-Za-z0-9_.:\\[\\]%-]+):[0-9]{1,5}");
    return text.size() <= kLongestAddress && std::regex_match(text, form);
}

std::optional<TcpAddress> NumericTcpAddress(const std::string& text) {
    const auto address = LookUp(text, AI_NUMERICHOST);
    return address ? std::optional(*address) : std::nullopt;
}

ZResult<TcpAddress> ResolveTcpAddress(const std::string& text) {
    auto address = LookUp(text, 0);
    return address ? address : address.error().In(text);
}

ZResult<ZFileDescriptor> ListenTcp(const std::string& address) {
    const auto numeric = NumericTcpAddress(address);
    if (!numeric) {
        return ZError("the host is not a number");
    }
    ZFileDescriptor listener = OpenSocket(*numeric);
    const int on = 1;
    if (!listener || ::setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(listener.Get(), numeric->Get(), numeric->size) != 0 || ::listen(listener.Get(), kWaitingCallers) != 0) {
        return ZError(std::strerror(errno));
    }
    return listener;
}

ZResult<ZFileDescriptor> AcceptTcp(const ZFileDescriptor& listener, TcpAddress& from) {
    from.size = sizeof from.storage;
    ZFileDescriptor caller(::accept4(listener.Get(), from.Get(), &from.size, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (caller) {
        SendAtOnce(caller);
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        return ZError(std::strerror(errno));
    }
    return caller;
}

ZResult<ZFileDescriptor> ConnectTcp(const TcpAddress& address) {
    ZFileDescriptor caller = OpenSocket(address);
    if (!caller || (::connect(caller.Get(), address.Get(), address.size) != 0 && errno != EINPROGRESS)) {
        return ZError(std::strerror(errno));
    }
    SendAtOnce(caller);
    return caller;
}

bool IsTcpConnected(const ZFileDescriptor& socket) {
    int failure = 0;
    socklen_t size = sizeof failure;
    return ::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &failure, &size) == 0 && failure == 0;
}
