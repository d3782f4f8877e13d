#pragma once

#include <future>
#include <thread>

#include "NodeComm/ZMailbox.h"
#include "NodeLink/LinkConnection.h"
#include "NodeLink/LinkPolicy.h"
#include "NodeLink/LinkTcp.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZLogLimit.h"
#include "ZShared/ZWakeUp.h"

/// What the link's thread reports. Called on that thread; must not wait for anything that the thread has to do.
class LinkEvents {
public:
    virtual ~LinkEvents() = default;
    /// Whether the device with that key may be who it says it is; the error says why not.
    virtual ZResult<void> OnIntroduced(const std::string& key, const std::shared_ptr<ZMessage>& introduction) = 0;
    virtual void OnArrived(const std::string& key) = 0;
    virtual void OnGone(const std::string& key) = 0;
    /// A device that nobody pinned was turned away; or, with `key` pinned, it turned this device away.
    virtual void OnRefused(const std::string& key) = 0;
    virtual void OnMessage(const std::string& key, LinkMessage message) = 0;
    /// Ends what is due, and returns when it wants to be called next.
    virtual ZClock::time_point OnTime(ZClock::time_point now) = 0;
};

/// The one thread that owns the link's sockets. It polls, and does what LinkPolicy decides. Everything public is
/// thread-safe.
class LinkLoop {
public:
    struct Settings {
        LinkKeyPair keys;
        std::string listenAddress;  ///< empty: this device only calls
        std::chrono::milliseconds heartbeat{1000};
    };

    /// `hello` is what the device introduces itself with.
    LinkLoop(Settings settings, std::shared_ptr<ZMessage> hello, LinkEvents& events);
    ~LinkLoop();
    LinkLoop(const LinkLoop&) = delete;
    LinkLoop& operator=(const LinkLoop&) = delete;

    /// An error when the system has no thread left.
    ZResult<void> Start();
    /// Closes all connections and ends the thread; not for the thread itself.
    void Stop();

    void SetPins(std::vector<ZLinkPin> pins);
    /// Queues a message for a device. False when it is not connected, or too much waits for it.
    bool Send(const std::string& key, const LinkMessage& message);
    /// Has OnTime called soon.
    void Wake() { m_wakeUp.Set(); }
    bool IsOwnThread() const { return m_thread.get_id() == std::this_thread::get_id(); }

private:
    using Id = LinkPolicy::Id;
    struct Commands {
        bool stop = false;
        std::vector<std::vector<ZLinkPin>> pins;  ///< in the order in which they were set
        std::vector<std::pair<std::string, LinkFrames>> messages;
        std::map<std::string, std::size_t> waiting;  ///< LinkSize of what is queued for each connected device
    };

    void Run();
    /// False when the thread is to end.
    bool Rest(ZClock::time_point until);
    void EndAll();
    bool Turn();
    void Poll(ZClock::time_point until);
    /// False when the thread is to end.
    bool TakeCommands();
    void Obey();
    void Introduce(Id id);
    void SayGone(const std::string& key);
    ZClock::time_point TryListen();
    void AcceptAll();
    void Call(Id id, const std::string& key, const std::string& address);
    /// A name's number once it is known; the looking up goes on meanwhile.
    std::optional<ZResult<TcpAddress>> Resolve(const std::string& address);
    void End(Id id, LinkPolicy::End end = LinkPolicy::End::Lost);
    void Serve(Id id, short ready);
    void Receive(Id id);
    /// False when nothing more can come of the connection.
    bool TakeNews(Id id, LinkConnection& connection, LinkWire::News news);
    void TellProblem(Id id, const std::string& key, const std::string& problem);
    bool Admit(Id id, LinkConnection& connection);
    void TakeMessage(Id id, const std::string& key, LinkFrames frames);
    void TakeHello(Id id, const std::string& key, const LinkMessage& message);
    void Flush(Id id, LinkConnection& connection);
    /// How the log names a device.
    std::string NameOf(const std::string& key) const;

    const Settings m_settings;
    const std::shared_ptr<ZMessage> m_hello;
    LinkEvents& m_events;
    ZWakeUp m_wakeUp;
    ZGuarded<Commands> m_commands;

    // The rest belongs to the thread.
    LinkPolicy m_policy;
    ZFileDescriptor m_listener;
    ZClock::time_point m_listenAgain{};
    bool m_listenerRests = false;  ///< there is no descriptor for who calls
    std::map<Id, LinkConnection> m_connections;
    std::map<std::string, std::future<ZResult<TcpAddress>>> m_lookups;  ///< by address
    ZLogLimit m_dropped;                                                ///< what of known devices is told
    ZLogLimit m_strangers{16};
    std::thread m_thread;
};
