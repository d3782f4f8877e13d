#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "NodeComm/ZMailbox.h"
#include "NodeComm/zmq/LinkKeys.h"
#include "NodeComm/zmq/LinkSocket.h"
#include "ZShared/ZFileDescriptor.h"

/// What the link's thread reports. Called on that thread; must not wait for anything that the thread has to do.
class LinkEvents {
public:
    virtual ~LinkEvents() = default;
    virtual void OnArrived(const std::string& key, const std::shared_ptr<ZMessage>& introduction) = 0;
    virtual void OnGone(const std::string& key) = 0;
    /// A device that nobody pinned was turned away; or, with `key` pinned, it turned this device away.
    virtual void OnRefused(const std::string& key) = 0;
    virtual void OnMessage(const std::string& key, LinkMessage message) = 0;
    /// Ends what is due, and returns when it wants to be called next.
    virtual ZMailbox::Clock::time_point OnTime(ZMailbox::Clock::time_point now) = 0;
};

/// The one thread that owns the link's sockets. Everything public is thread-safe.
class LinkLoop {
public:
    /// `hello` is what the device introduces itself with.
    LinkLoop(LinkSocketSettings settings, std::string listenAddress, std::shared_ptr<ZMessage> hello,
             LinkEvents& events);
    ~LinkLoop();
    LinkLoop(const LinkLoop&) = delete;
    LinkLoop& operator=(const LinkLoop&) = delete;

    /// False, with `error`, when the system has no thread or descriptor left.
    bool Start(std::string& error);
    /// Closes all connections and ends the thread; not for the thread itself.
    void Stop();

    void SetPins(std::vector<ZLinkPin> pins);
    /// Queues a message for a device. False when it is not connected, or too much waits for it.
    bool Send(const std::string& key, const LinkMessage& message);
    /// Has OnTime called soon.
    void Wake();
    bool IsOwnThread() const { return m_thread.get_id() == std::this_thread::get_id(); }

private:
    /// A device that is connected, or is about to be.
    struct Session {
        LinkSocket* socket = nullptr;
        std::string number;  ///< the listener's number of it; empty for a caller's
        int descriptor = -1;
        bool introduced = false;
        std::deque<LinkFrames> outbox;
    };
    struct Commands {
        bool stop = false;
        bool newPins = false;
        std::vector<ZLinkPin> pins;
        std::vector<std::pair<std::string, LinkFrames>> messages;
    };

    void Run();
    bool Turn();
    void Poll(std::chrono::milliseconds limit);
    void CloseConnections();
    void ApplyPins(std::vector<ZLinkPin> pins);
    /// Calls pinned devices that are not called yet; returns when to look again.
    ZMailbox::Clock::time_point CallPinned(ZMailbox::Clock::time_point now);
    void TryListen();
    void HandleEvents();
    void DropCaller(const std::string& key);
    void CallAgainLater(const std::string& key, const char* what);
    void OnCallerEvent(const std::string& key, LinkSocket& socket, const LinkSocketEvent& event);
    void Authenticate();
    bool IsAdmitted(const std::vector<zmq::message_t>& request, std::string& key);
    void ReceiveAll();
    void Take(const std::string& key, LinkSocket& socket, std::string number, LinkFrames frames);
    void Introduce(Session& session);
    void FlushOutboxes();
    void EndSession(std::string key);  // a copy: the key may be the table's own
    const ZLinkPin* FindPin(const std::string& key) const;
    /// Of two devices that call each other, the call of the one with the smaller key counts.
    bool OwnCallCounts(const std::string& key) const { return m_settings.keys.publicKey < key; }
    bool HasCall(const std::string& key, bool own) const;

    const LinkSocketSettings m_settings;
    const std::string m_listenAddress;
    const std::shared_ptr<ZMessage> m_hello;
    LinkEvents& m_events;
    const ZFileDescriptor m_wakeUp;

    std::mutex m_commandsMutex;
    Commands m_commands;
    std::map<std::string, std::size_t> m_waiting;  ///< bytes queued for each connected device

    // The rest belongs to the thread.
    zmq::context_t m_context;
    zmq::socket_t m_authenticator;
    std::optional<LinkSocket> m_listener;
    ZMailbox::Clock::time_point m_listenAgain{};
    bool m_listenFailed = false;
    std::map<std::string, LinkSocket> m_callers;  ///< by key
    /// When a device that turned this one away is called again; the library would not do it any more.
    std::map<std::string, ZMailbox::Clock::time_point> m_callAgain;
    std::map<std::string, Session> m_sessions;  ///< by key
    std::vector<ZLinkPin> m_pins;
    std::set<std::string> m_turnedAway;  ///< keys that were reported, until there are many or the pins change
    bool m_bBlocked = false;             ///< a message waits for room
    std::thread m_thread;
};
