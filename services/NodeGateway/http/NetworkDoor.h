#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/http/fields.hpp>
#include <chrono>
#include <map>
#include <memory>
#include <optional>

#include "ZShared/ZDeadline.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZLogLimit.h"
#include "http/HostNames.h"
#include "http/HttpMessage.h"
#include "http/NetworkSettings.h"
#include "http/TokenFile.h"

namespace gateway {

/// Counts what somebody does wrong: so much in a second. Of more addresses than it keeps, all others are one.
class FailureRate {
public:
    /// False when `address` has done it too often.
    bool Admit(const std::string& address, ZClock::time_point now = ZClock::now());

private:
    struct Count {
        ZClock::time_point since;
        unsigned failures = 0;
    };
    std::map<std::string, Count> m_counts;
};

/// The door of the network: where it is, its certificate, and who gets in. Belongs to the server's thread once it is
/// open.
class NetworkDoor {
public:
    using Fields = boost::beast::http::fields;

    /// Reads the files. An error names the one that can't be used.
    static ZResult<std::unique_ptr<NetworkDoor>> Open(const NetworkSettings& settings);

    /// A socket that listens, without blocking.
    ZResult<ZFileDescriptor> Listen() const;
    /// Null: the door is without TLS.
    boost::asio::ssl::context* Tls() const { return m_tls.get(); }
    /// Whoever has connected; none when it has gone.
    static std::optional<Peer> StrangerOf(int socket);

    /// What becomes of a request with this head.
    struct Verdict {
        const Token* token = nullptr;         ///< whose request it is; null: nobody's
        std::optional<HttpResponse> refusal;  ///< with what it is refused; none: it is served
        std::chrono::seconds delay{0};        ///< and when
    };
    /// `isOpen`: what is asked for takes no token.
    Verdict Judge(const Fields& head, const Peer& peer, bool isOpen);
    /// Tells it in the log.
    void OnHandshakeFailed(const Peer& peer, const boost::system::error_code& failure);

private:
    NetworkDoor(const NetworkSettings& settings, TokenFile tokens);
    static Verdict Refused(int status, std::string_view why);
    Verdict Unknown(const Peer& peer);

    const boost::asio::ip::tcp::endpoint m_address;
    const HostNames m_names;
    const TokenFile m_tokens;
    std::unique_ptr<boost::asio::ssl::context> m_tls;
    FailureRate m_failures;
    ZLogLimit m_log;
};

}  // namespace gateway
