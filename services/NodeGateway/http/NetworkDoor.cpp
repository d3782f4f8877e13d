#include "http/NetworkDoor.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <boost/asio/ip/network_v6.hpp>
#include <boost/beast/core/string.hpp>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "http/GatewayLog.h"
#include "http/Limits.h"
#include "http/Problem.h"
#include "http/TlsContext.h"

namespace gateway {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Endpoint = asio::ip::tcp::endpoint;

constexpr int kWaitingConnections = 128;  // that the kernel keeps until they are accepted
constexpr std::string_view kScheme = "Bearer ";

/// The address at one end of a connection; none when there is none any more.
template <typename NameOf>
std::optional<asio::ip::address> AddressAt(int socket, NameOf nameOf) {
    Endpoint endpoint;
    auto size = static_cast<socklen_t>(endpoint.capacity());
    if (nameOf(socket, endpoint.data(), &size) != 0) {
        return std::nullopt;
    }
    endpoint.resize(size);
    return endpoint.address();
}

/// Whom an address is counted as: who has one of version 6 most often has all that begin alike.
std::string AccountOf(const asio::ip::address& address) {
    constexpr unsigned short kBitsOfANetwork = 64;
    return "at " + (address.is_v6() ? asio::ip::make_network_v6(address.to_v6(), kBitsOfANetwork).network().to_string()
                                    : address.to_string());
}

std::optional<Endpoint> EndpointOf(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view host = text.substr(0, colon);
    const std::string_view digits = text.substr(colon + 1);
    const bool bracketed = host.starts_with('[') && host.ends_with(']');
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    std::uint16_t port = 0;
    boost::system::error_code failure;
    const auto address = asio::ip::make_address(host, failure);
    const bool read = std::from_chars(digits.begin(), digits.end(), port).ptr == digits.end();
    if (failure || !read || digits.starts_with('0') || port == 0 || address.is_v6() != bracketed) {
        return std::nullopt;
    }
    return Endpoint(address, port);
}

std::string_view View(beast::string_view text) {
    return {text.data(), text.size()};
}

/// The token of the only header for it; empty when there is none, or something else.
std::string_view SecretOf(const NetworkDoor::Fields& head) {
    const std::string_view text = View(head[http::field::authorization]);
    const bool one = head.count(http::field::authorization) == 1 && text.size() > kScheme.size() &&
                     beast::iequals(text.substr(0, kScheme.size()), kScheme);
    return one ? text.substr(kScheme.size()) : std::string_view();
}

bool SetOption(int socket, int level, int option, int value) {
    return ::setsockopt(socket, level, option, &value, sizeof value) == 0;
}

}  // namespace

bool CanListenAt(std::string_view listen) {
    return EndpointOf(listen).has_value();
}

bool IsLoopback(std::string_view listen) {
    const auto endpoint = EndpointOf(listen);
    return endpoint && endpoint->address().is_loopback();
}

bool FailureRate::Admit(const std::string& address, ZClock::time_point now) {
    const auto isOver = [now](const auto& entry) { return entry.second.since + std::chrono::seconds(1) <= now; };
    if (m_counts.size() >= limits::kAddressesKept && !m_counts.contains(address)) {
        std::erase_if(m_counts, isOver);
    }
    const bool kept = m_counts.size() < limits::kAddressesKept || m_counts.contains(address);
    auto& [since, failures] = m_counts[kept ? address : std::string()];
    if (since + std::chrono::seconds(1) <= now) {
        since = now;
        failures = 0;
    }
    return ++failures <= limits::kWrongTokens;
}

NetworkDoor::NetworkDoor(const NetworkSettings& settings, TokenFile tokens)
    : m_address(*EndpointOf(settings.listen)), m_names(settings.hostNames), m_tokens(std::move(tokens)) {}

ZResult<std::unique_ptr<NetworkDoor>> NetworkDoor::Open(const NetworkSettings& settings) {
    auto tokens = TokenFile::Read(settings.tokenFile);
    if (!tokens) {
        return tokens.error();
    }
    std::unique_ptr<NetworkDoor> door(new NetworkDoor(settings, std::move(*tokens)));
    if (!settings.certificateFile.empty()) {
        auto tls = MakeTlsContext(settings.certificateFile, settings.privateKeyFile);
        if (!tls) {
            return tls.error();
        }
        door->m_tls = std::move(*tls);
    } else if (!door->m_address.address().is_loopback()) {
        return ZError("other machines would send their tokens for all to read: it takes a certificate");
    }
    return door;
}

ZResult<ZFileDescriptor> NetworkDoor::Listen() const {
    const int family = m_address.protocol().family();
    ZFileDescriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // What is for version 6 does not take that of version 4 along: addresses would have two spellings.
    if (!socket || !SetOption(socket.Get(), SOL_SOCKET, SO_REUSEADDR, 1) ||
        (family == AF_INET6 && !SetOption(socket.Get(), IPPROTO_IPV6, IPV6_V6ONLY, 1)) ||
        ::bind(socket.Get(), m_address.data(), static_cast<socklen_t>(m_address.size())) != 0 ||
        ::listen(socket.Get(), kWaitingConnections) != 0) {
        return ZError(std::strerror(errno));
    }
    return socket;
}

std::optional<Peer> NetworkDoor::StrangerOf(int socket) {
    const auto address = AddressAt(socket, ::getpeername);
    const auto own = AddressAt(socket, ::getsockname);
    // Somebody who vanishes without a word is found out as soon as one who does not take an answer.
    constexpr int kPatience = static_cast<int>(std::chrono::milliseconds(limits::kAnswerTime).count());
    if (!address || !own || !SetOption(socket, IPPROTO_TCP, TCP_NODELAY, 1) ||
        !SetOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, kPatience)) {
        return std::nullopt;
    }
    Peer stranger;
    stranger.account = AccountOf(*address);
    stranger.address = address->to_string();
    stranger.ownAddress = own->to_string();
    return stranger;
}

NetworkDoor::Verdict NetworkDoor::Judge(const Fields& head, const Peer& peer, bool isOpen) {
    if (head.count(http::field::host) != 1) {
        return Refused(400, "A request names its host once, by \"Host\"");
    }
    if (!m_names.IsOurs(View(head[http::field::host]), peer.ownAddress)) {
        return Refused(421,
                       "This device does not have the name by which it is asked; \"hostNames\" lists those it has");
    }
    const auto [first, last] = head.equal_range(http::field::origin);
    for (auto origin = first; origin != last; ++origin) {
        if (!m_names.IsOurOrigin(View(origin->value()), peer.ownAddress)) {
            return Refused(403, "Pages of other hosts may not ask");
        }
    }
    if (head.count(http::field::authorization) == 0 && isOpen) {
        return {};
    }
    if (head.count(http::field::authorization) == 0) {
        return Refused(401, "A request over the network takes a token: \"Authorization: Bearer TOKEN\"");
    }
    if (const Token* const token = m_tokens.Find(SecretOf(head))) {
        return {token, {}, {}};
    }
    return Unknown(peer);
}

void NetworkDoor::OnHandshakeFailed(const Peer& peer, const beast::error_code& failure) {
    if (const auto more = m_log.Admit("TLS " + peer.address)) {
        Z_LOG(2, "Somebody at %s did not get through the TLS handshake: %s%s", peer.address, failure.message(), *more);
    }
}

NetworkDoor::Verdict NetworkDoor::Refused(int status, std::string_view why) {
    Verdict verdict;
    verdict.refusal = Problem(status, why);
    if (status == 401) {
        verdict.refusal->headers.emplace_back("WWW-Authenticate", "Bearer realm=\"arbor\"");
    }
    return verdict;
}

NetworkDoor::Verdict NetworkDoor::Unknown(const Peer& peer) {
    if (const auto more = m_log.Admit(peer.address)) {
        Z_LOG(3, "Somebody at %s asked with a token that is not known%s", peer.address, *more);
    }
    boost::system::error_code ignored;
    if (m_failures.Admit(AccountOf(asio::ip::make_address(peer.address, ignored)))) {
        return Refused(401, "This token is not known");
    }
    Verdict verdict = Refused(429, "Too many unknown tokens came from this address");
    verdict.refusal->headers.emplace_back("Retry-After", std::to_string(limits::kWrongTokenDelay.count()));
    verdict.delay = limits::kWrongTokenDelay;
    return verdict;
}

}  // namespace gateway
