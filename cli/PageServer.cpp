#include "PageServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "ForwardedRequest.h"
#include "Interrupt.h"
#include "Reachability.h"
#include "text/Hex.h"

namespace arborctl {
namespace {

constexpr std::size_t kMostConnections = 48;
constexpr std::size_t kLargestHead = std::size_t{16} * 1024;
constexpr std::size_t kSecretBytes = 32;
constexpr std::chrono::seconds kHeadTime{10};
constexpr time_t kStallSeconds = 30;  // that a side may take to accept what is sent to it
constexpr int kWaiting = 64;
constexpr std::string_view kHeadEnd = "\r\n\r\n";

using Clock = std::chrono::steady_clock;

/// Waits until one of the descriptors has something to read, or has ended. False when the user wants to stop, or it is
/// too late.
template <std::size_t Count>
bool Await(std::array<pollfd, Count>& watched, std::optional<Clock::time_point> deadline) {
    while (!Interrupted() && (!deadline || Clock::now() < *deadline)) {
        const int ready = poll(watched.data(), watched.size(), static_cast<int>(kInterruptPoll.count()));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
    return false;
}

bool SendAll(const Socket& to, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = send(to.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR && !Interrupted()) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

/// Carries what is there. False when that side has ended, or the other one does not take it.
bool Carry(const Socket& from, const Socket& to) {
    std::array<char, std::size_t{32} * 1024> buffer{};
    const ssize_t got = recv(from.Get(), buffer.data(), buffer.size(), 0);
    return got > 0 && SendAll(to, {buffer.data(), static_cast<std::size_t>(got)});
}

/// Both ways, until the device has told all or the browser has gone.
void CarryBoth(const Socket& browser, const Socket& device) {
    std::array<pollfd, 2> watched{{{browser.Get(), POLLIN, 0}, {device.Get(), POLLIN, 0}}};
    while (Await(watched, std::nullopt)) {
        if (watched[1].revents != 0 && !Carry(device, browser)) {
            return;
        }
        if (watched[0].revents != 0 && !Carry(browser, device)) {
            return;
        }
    }
}

/// What a browser has sent up to the end of a head, and whatever came along; none when it is none.
std::optional<std::string> ReadHead(const Socket& browser) {
    std::string text;
    const auto deadline = Clock::now() + kHeadTime;
    while (text.find(kHeadEnd) == std::string::npos) {
        std::array<pollfd, 1> watched{{{browser.Get(), POLLIN, 0}}};
        std::array<char, 4096> buffer{};
        if (text.size() > kLargestHead || !Await(watched, deadline)) {
            return std::nullopt;
        }
        const ssize_t got = recv(browser.Get(), buffer.data(), buffer.size(), 0);
        if (got <= 0) {
            return std::nullopt;
        }
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return text;
}

Socket ConnectToDevice(const std::string& path) {
    sockaddr_un address{};
    Socket device(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (path.size() >= sizeof(address.sun_path)) {
        return Socket();
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const bool connected =
        device && connect(device.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    return connected ? std::move(device) : Socket();
}

void LimitSending(const Socket& socket) {
    const timeval patience{.tv_sec = kStallSeconds, .tv_usec = 0};
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

std::string InQuotes(const std::string& text) {
    std::string quoted;
    for (const char letter : text) {
        quoted += letter == '"' || letter == '\\' ? std::string("\\") + letter : std::string(1, letter);
    }
    return '"' + quoted + '"';
}

std::string Answer(int status, const std::string& type, const std::string& body) {
    return "HTTP/1.1 " + std::to_string(status) + " -\r\nContent-Type: " + type +
           "\r\nContent-Security-Policy: default-src 'none'\r\nX-Content-Type-Options: nosniff\r\nCache-Control: "
           "no-store\r\nConnection: close\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string Refused(const Refusal& refusal) {
    return Answer(refusal.status, "application/problem+json",
                  "{\"title\":\"Refused\",\"status\":" + std::to_string(refusal.status) +
                      ",\"detail\":" + InQuotes(refusal.reason) + "}");
}

/// For a person whose browser loads the page while the device restarts: it tries again by itself.
std::string WaitingPage() {
    return Answer(502, "text/html; charset=utf-8",
                  "<!doctype html><html lang=\"en\"><meta http-equiv=\"refresh\" content=\"2\"><title>Waiting</title>"
                  "<h1>The instrument does not answer</h1><p>It may be restarting. This page tries again by itself.");
}

}  // namespace

Socket::~Socket() {
    if (m_descriptor >= 0) {
        close(m_descriptor);
    }
}

Socket::Socket(Socket&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
}

PageServer::PageServer(std::string socketPath) : m_socketPath(std::move(socketPath)) {}

Result<void> PageServer::Listen(std::uint16_t port) {
    std::array<unsigned char, kSecretBytes> secret{};
    if (getrandom(secret.data(), secret.size(), 0) != static_cast<ssize_t>(secret.size())) {
        return UsageFailure(std::string("no random numbers: ") + std::strerror(errno));
    }
    m_secret = text::HexDigits(secret);
    m_listener = Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    socklen_t size = sizeof(address);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (!m_listener || bind(m_listener.Get(), generic, size) != 0 || listen(m_listener.Get(), kWaiting) != 0 ||
        getsockname(m_listener.Get(), generic, &size) != 0) {
        return UsageFailure("can't listen on 127.0.0.1:" + std::to_string(port) + ": " + std::strerror(errno));
    }
    m_port = ntohs(address.sin_port);
    return {};
}

std::string PageServer::Address() const {
    // Behind the mark a browser tells it to nobody, not even to this server, but to the page.
    return "http://127.0.0.1:" + std::to_string(m_port) + "/#token=" + m_secret;
}

void PageServer::Run() {
    struct Connection {
        std::atomic<bool> over{false};
        std::jthread thread;
    };
    std::list<Connection> connections;
    while (!Interrupted()) {
        std::array<pollfd, 1> watched{{{m_listener.Get(), POLLIN, 0}}};
        connections.remove_if([](const Connection& connection) { return connection.over.load(); });
        if (connections.size() >= kMostConnections) {
            PauseUnlessInterrupted(kInterruptPoll);
            continue;
        }
        if (!Await(watched, std::nullopt)) {
            continue;
        }
        auto browser = std::make_shared<const Socket>(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (*browser) {
            Connection& connection = connections.emplace_back();
            connection.thread = std::jthread([this, browser, &over = connection.over] {
                Serve(*browser);
                over = true;
            });
        }
    }
}

void PageServer::Serve(const Socket& browser) const {
    LimitSending(browser);
    const auto request = ReadHead(browser);
    if (!request) {
        return;
    }
    const std::size_t end = request->find(kHeadEnd) + kHeadEnd.size();
    const std::string_view head = std::string_view(*request).substr(0, end);
    const auto forwarded = ForwardedHead(head, {m_port, m_secret});
    if (!forwarded) {
        SendAll(browser, Refused(forwarded.error()));
        return;
    }
    const Socket device = ConnectToDevice(m_socketPath);
    if (!device) {
        SendAll(browser, AsksForPage(head) ? WaitingPage() : Refused({502, WhyNotConnected(m_socketPath)}));
        return;
    }
    LimitSending(device);
    if (SendAll(device, *forwarded) && SendAll(device, std::string_view(*request).substr(end))) {
        CarryBoth(browser, device);
    }
}

}  // namespace arborctl
