#pragma once

#include <map>
#include <optional>

#include "NodeComm/ZNodeLink.h"
#include "ZShared/ZDeadline.h"

/// Decides for the link: who may come in, which of two connections counts, when a device is called, probed and given
/// up. Told what happens and what time it is, it gives orders; it knows no socket and no clock.
class LinkPolicy {
public:
    using Id = std::uint64_t;
    using Time = ZClock::time_point;

    struct Order {
        enum class Kind : std::int8_t {
            Call,       ///< connect to the pin's address
            Close,      ///< the connection; it has been forgotten here
            Introduce,  ///< send who this device is
            Probe,      ///< ask whether somebody is still there
            Gone,       ///< tell that the device is no longer connected
        };
        Kind kind;
        Id id;
        std::string key;      ///< of Call and Gone
        std::string address;  ///< of Call
        bool operator==(const Order&) const = default;
    };
    /// Why a connection ended: there was nobody or it broke off; the other side's fault or its decision; or who the
    /// device says it is.
    enum class End : std::int8_t { Lost, Refused, WrongDevice };

    LinkPolicy(std::string ownKey, ZClock::duration heartbeat) : m_ownKey(std::move(ownKey)), m_heartbeat(heartbeat) {}

    /// Connections end whose pin went or has another address; what kept the others out may be mended.
    void SetPins(std::vector<ZLinkPin> pins, Time now);
    /// Null when the key is not pinned. Valid until the next SetPins.
    const ZLinkPin* FindPin(const std::string& key) const;

    /// Somebody at that host called. May order to close who has been in the way for longest. True when it did.
    struct Guest {
        Id id;
        bool crowded;  ///< another guest has to go for it
    };
    Guest Accepted(const std::string& host, Time now);
    /// A called device took the connection.
    void Reached(Id id, Time now);
    /// Both sides have proved their keys. False when another connection with that device counts, or it is not pinned:
    /// the connection ends.
    void Opened(Id id, const std::string& key, Time now);
    /// The device has said who it is, and may come in. Not twice.
    void Introduced(Id id);
    void Heard(Id id, Time now);
    void Ended(Id id, End end, Time now);
    /// All connections end, and are called again a little later.
    void EndAll(Time now);

    bool IsIntroduced(Id id) const;
    /// Where somebody called from.
    const std::string& HostOf(Id id) const { return m_connections.at(id).host; }
    /// The connection over which an introduced device is reached.
    std::optional<Id> Session(const std::string& key) const;

    /// Orders what is due, and says when to come again.
    Time Advance(Time now);
    std::vector<Order> TakeOrders() { return std::exchange(m_orders, {}); }

private:
    enum class Stage : std::int8_t { Calling, Shaking, Open, Introduced };
    struct Connection {
        bool own;  ///< this device called
        Stage stage;
        std::string host;  ///< of one that called
        std::string key;
        Time since;  ///< of the stage
        Time heard;
        Time probed{};
    };
    using Connections = std::map<Id, Connection>;
    /// What is known of calling a pinned device.
    struct Call {
        Time again{};
        unsigned failures = 0;
    };

    Connections::iterator MakeRoom(const std::string& host);
    Connections::iterator Close(Connections::iterator connection, Time now, End end = End::Lost);
    void CallDue(Time now, Time& next);
    void Watch(Connections::iterator connection, Time now, Time& next);
    /// Of two devices that call each other, the call of the one with the smaller key counts.
    bool OwnCallCounts(const std::string& key) const { return m_ownKey < key; }
    bool IsCalled(const std::string& key) const;

    const std::string m_ownKey;
    const ZClock::duration m_heartbeat;
    std::vector<ZLinkPin> m_pins;
    std::map<std::string, Call> m_calls;  // by key
    Connections m_connections;            // in the order in which they began
    Id m_nextId = 1;
    std::vector<Order> m_orders;
};
