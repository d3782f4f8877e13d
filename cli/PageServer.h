#pragma once

#include <cstdint>
#include <string>

#include "Result.h"

namespace arborctl {

/// One end of a connection, or a socket that listens.
class Socket {
public:
    explicit Socket(int descriptor = -1) : m_descriptor(descriptor) {}
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;

    [[nodiscard]] int Get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }

private:
    int m_descriptor;
};

/// Serves a device's page, and all that it asks for, on a port of this machine's own address (127.0.0.1), by handing
/// each request over to the device's socket. The device sees the user who runs this program, so whoever asks has to
/// show a secret that only the page's address holds; without it there are only the page's files, which are the same for
/// everybody. Requests that name another host, or come from another page, are refused.
class PageServer {
public:
    explicit PageServer(std::string socketPath);

    /// `port` 0: any that is free.
    Result<void> Listen(std::uint16_t port);
    /// Where a browser finds the page, with the secret. Once it listens.
    [[nodiscard]] std::string Address() const;
    /// Serves until the user wants to stop. Each connection has a thread of its own; there are only so many at once,
    /// and all have ended when it returns.
    void Run();

private:
    void Serve(const Socket& browser) const;

    std::string m_socketPath;
    std::string m_secret;
    std::uint16_t m_port = 0;
    Socket m_listener;
};

}  // namespace arborctl
