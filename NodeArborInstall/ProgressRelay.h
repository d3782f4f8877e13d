#pragma once

#include <poll.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>

#include "ZMessages/Messages.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZLog.h"

/// Takes the installer's progress documents from a socket and hands each on as a message. Bound by one relay thread at
/// a time, which alone calls Close and Pass; clients that stay connected when it ends are kept for the next one, or
/// closed with the object.
class ProgressRelay {
public:
    /// Where installers connect: the file `name` in the archive's folder, or, on an accessory's behalf, a TCP port.
    struct Place {
        bool bUnix = true;
        std::filesystem::path archive;
        std::filesystem::path name;
        std::uint16_t port = 0;

        std::filesystem::path Path() const { return archive / name; }
    };
    using Publish = std::function<void(const std::shared_ptr<InstallProgressMsg>&)>;

    /// `log` says under which name lines are written now.
    ProgressRelay(std::function<ZLogger()> log, Publish publish)
        : m_logger(std::move(log)), m_publish(std::move(publish)) {}
    ~ProgressRelay();
    ProgressRelay(const ProgressRelay&) = delete;
    ProgressRelay& operator=(const ProgressRelay&) = delete;

    /// Binds the socket and listens. False when that fails, or while another relay is bound, which stays untouched.
    bool Bind(int socket, const Place& place);
    /// Closes the listening socket and removes its file.
    void Close(int socket, const Place& place);
    /// One poll pass, of 500 ms at most. Whether the relay is to keep running.
    bool Pass(int socket, ZCommStream& stream);

    /// A relay is about to be started.
    void Announce();
    /// Waits until the relay that was announced last listens or never will, for a bounded time.
    void WaitUntilDecided();
    bool IsBound() const { return m_progressSocket != 0; }

private:
    static constexpr std::size_t kPollEntries = 5;  // the listening socket and four clients; a fifth one waits
    static constexpr std::size_t kReadSize = 1024;  // one read is one document
    struct PollTable {
        std::array<pollfd, kPollEntries> entries{};
        std::array<char, kReadSize> buffer{};
        bool bAcceptPaused = false;  // no descriptor was to be had: the next pass does not look for connections
    };

    ZLogger Log() const { return m_logger(); }
    bool BindAndListen(int socket, const Place& place);
    int BindAddress(int socket, const Place& place) const;
    int BindUnix(int socket, const Place& place) const;
    int BindPort(int socket, std::uint16_t port) const;
    void SetDecided();
    std::size_t FillPollTable(int listener);
    void HandleHangup(const pollfd& entry, bool isListener, bool& keepRunning);
    void AcceptClients(int listener);
    void RemoveClient(int descriptor);
    // False ends the pass. `keepRunning` becomes what the last message says.
    bool ReadClient(int descriptor, ZCommStream& stream, bool& keepRunning);
    bool RelayText(std::string_view text, ZCommStream& stream, bool& keepRunning);

    const std::function<ZLogger()> m_logger;
    const Publish m_publish;
    ZList<int> m_progressMessages;                  // the connected clients, in order of acceptance
    std::atomic<std::int64_t> m_progressSocket{0};  // the listening socket's descriptor + 1; 0: no relay is bound
    std::unique_ptr<PollTable> m_pollTable;         // exists while a relay is bound
    ZGuarded<bool> m_bDecided;                      // the relay announced last listens, or never will
    std::condition_variable m_changed;
};
