#pragma once

#include <poll.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <optional>

#include "ZMessages/Messages.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZLog.h"
#include "ZShared/ZWakeUp.h"

/// Takes the installer's progress documents from a socket and hands each on as a message. Bound by one relay thread at
/// a time, which alone calls Close and Pass. Clients that an earlier install left connected are closed before the next
/// one listens: a document counts only for the install that it belongs to.
class ProgressRelay {
public:
    /// Where installers connect: the file `name` in the archive's folder, or, on an accessory's behalf, a TCP port.
    struct Place {
        bool bUnix = true;
        std::filesystem::path archive;
        std::filesystem::path name;
        std::uint16_t port = 0;
        std::string address;  ///< of this host towards the accessory, IPv4; empty: any
        std::string peer;     ///< the accessory's; documents from elsewhere are refused; empty: from anywhere

        std::filesystem::path Path() const { return archive / name; }
    };
    using Publish = std::function<void(const std::shared_ptr<InstallProgressMsg>&)>;

    /// `log` says under which name lines are written now. Throws std::system_error when no descriptor is left.
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
    /// The relay that was announced will not be bound.
    void Abandon();
    /// Waits until the relay that was announced last listens (true) or never will, for a bounded time. What was in its
    /// way is told by Failure.
    bool WaitUntilListening();
    std::string Failure() const { return m_failure.Copy(); }
    bool IsBound() const { return m_progressSocket != 0; }
    bool IsBoundTo(int socket) const { return m_progressSocket == static_cast<std::int64_t>(socket) + 1; }

    /// What it listens for has ended: the relay ends as soon as all that was sent is read. Any thread.
    void EndWhenRead();
    /// Waits, for a bounded time, until no relay is bound. Not for the relay's thread.
    void WaitUntilFree();
    /// Since when nobody has been connected; none while somebody is. For the relay's thread.
    std::optional<ZClock::time_point> LonelySince() const { return m_lonelySince; }

private:
    static constexpr std::size_t kPollEntries = 5;  // the listening socket and four clients; a fifth one waits
    static constexpr std::size_t kReadSize = 1024;  // one read is one document
    struct PollTable {
        std::array<pollfd, kPollEntries + 1> entries{};  // the last one in use is the wake-up's
        std::array<char, kReadSize> buffer{};
        bool bAcceptPaused = false;  // no descriptor was to be had: the next pass does not look for connections
        std::string peer;
        bool bStrangerTold = false;
        int lastPasses = 0;
    };
    enum class Decision { Pending, Listens, Failed };

    ZLogger Log() const { return m_logger(); }
    bool BindAndListen(int socket, const Place& place);
    int BindAddress(int socket, const Place& place) const;
    int BindUnix(int socket, const Place& place) const;
    int BindPort(int socket, const Place& place) const;
    void Decide(Decision decision);
    void SetFree();
    std::size_t FillPollTable(int listener);
    void HandleHangup(const pollfd& entry, bool isListener, bool& keepRunning);
    void AcceptClients(int listener);
    int AcceptFromPeer(int listener);
    void RemoveClient(int descriptor);
    void CloseClients();
    // False ends the pass. `keepRunning` becomes what the last message says.
    bool ReadClient(int descriptor, ZCommStream& stream, bool& keepRunning);
    bool RelayText(std::string_view text, ZCommStream& stream, bool& keepRunning);

    const std::function<ZLogger()> m_logger;
    const Publish m_publish;
    ZList<int> m_progressMessages;                  // the connected clients, in order of acceptance
    std::atomic<std::int64_t> m_progressSocket{0};  // the listening socket's descriptor + 1; 0: no relay is bound
    std::unique_ptr<PollTable> m_pollTable;         // exists while a relay is bound
    std::optional<ZClock::time_point> m_lonelySince;
    ZGuarded<std::string> m_failure;  // why the last relay could not listen
    ZGuarded<Decision> m_decision;    // about the relay that was announced last
    std::condition_variable m_changed;
    ZGuarded<bool> m_bBound;  // as m_progressSocket, for those that wait
    std::condition_variable m_freed;
    std::atomic<bool> m_bEnding{false};
    ZWakeUp m_wakeUp;
};
