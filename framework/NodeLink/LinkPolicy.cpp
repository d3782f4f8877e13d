#include "NodeLink/LinkPolicy.h"

#include <algorithm>
#include <utility>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Who has not proved its key yet. A device needs a few milliseconds for that.
constexpr std::ptrdiff_t kMostGuests = 16;
constexpr std::ptrdiff_t kMostGuestsOfAHost = 4;
constexpr auto kConnectLimit = milliseconds(500);
constexpr auto kHandshakeLimit = seconds(3);
constexpr auto kIntroductionLimit = seconds(10);

constexpr auto kFirstRetry = milliseconds(100);
constexpr auto kSlowestRetry = milliseconds(400);
constexpr auto kRetryWhenRefused = milliseconds(500);
constexpr auto kRetryWrongDevice = seconds(60);  // somebody has to do something about it
constexpr auto kLongestSleep = std::chrono::hours(1);
constexpr int kHeartbeatsToLive = 3;  // after one it is probed, and has two more to answer

}  // namespace

void LinkPolicy::SetPins(std::vector<ZLinkPin> pins, Time now) {
    std::swap(m_pins, pins);
    for (auto connection = m_connections.begin(); connection != m_connections.end();) {
        const std::string& key = connection->second.key;
        const auto old = std::ranges::find(pins, key, &ZLinkPin::publicKey);
        const ZLinkPin* pin = FindPin(key);
        const bool stays = key.empty() || (pin != nullptr && old != pins.end() && pin->address == old->address);
        connection = stays ? std::next(connection) : Close(connection, now);
    }
    m_calls.clear();
}

const ZLinkPin* LinkPolicy::FindPin(const std::string& key) const {
    const auto found = std::ranges::find(m_pins, key, &ZLinkPin::publicKey);
    return found == m_pins.end() ? nullptr : &*found;
}

LinkPolicy::Guest LinkPolicy::Accepted(const std::string& host, Time now) {
    const auto inTheWay = MakeRoom(host);
    const bool crowded = inTheWay != m_connections.end();
    if (crowded) {
        Close(inTheWay, now);
    }
    m_connections.emplace(m_nextId, Connection{false, Stage::Shaking, host, {}, now, now});
    return {m_nextId++, crowded};
}

/// The guest that has to go: the oldest of the same host when that has its share, or of the hosts that have most. The
/// newest may stay: a device is done before many others come, however fast somebody makes them.
LinkPolicy::Connections::iterator LinkPolicy::MakeRoom(const std::string& host) {
    std::map<std::string, std::ptrdiff_t> guests;
    std::ptrdiff_t all = 0;
    for (const auto& [id, connection] : m_connections) {
        if (!connection.own && connection.stage == Stage::Shaking) {
            ++guests[connection.host];
            ++all;
        }
    }
    const bool hasItsShare = guests[host] >= kMostGuestsOfAHost;
    if (!hasItsShare && all < kMostGuests) {
        return m_connections.end();
    }
    const auto count = [](const auto& entry) { return entry.second; };
    const auto most = std::ranges::max_element(guests, {}, count)->second;
    return std::ranges::find_if(m_connections, [&](const auto& entry) {
        const Connection& connection = entry.second;
        return !connection.own && connection.stage == Stage::Shaking &&
               (hasItsShare ? connection.host == host : guests[connection.host] == most);
    });
}

void LinkPolicy::Reached(Id id, Time now) {
    Connection& connection = m_connections.at(id);
    connection.stage = Stage::Shaking;
    connection.since = now;
}

void LinkPolicy::Opened(Id id, const std::string& key, Time now) {
    const auto opened = m_connections.find(id);
    const bool own = opened->second.own;
    opened->second.key = key;
    if (FindPin(key) == nullptr) {  // its pin was taken away meanwhile
        Close(opened, now);
        return;
    }
    for (auto other = m_connections.begin(); other != m_connections.end();) {
        const bool isRival = other != opened && other->second.key == key && other->second.stage >= Stage::Open;
        if (isRival && other->second.own != own && other->second.own == OwnCallCounts(key)) {
            Close(opened, now);
            return;
        }
        other = isRival ? Close(other, now) : std::next(other);
    }
    opened->second.stage = Stage::Open;
    opened->second.since = opened->second.heard = now;
    if (own) {
        m_orders.push_back({Order::Kind::Introduce, id, {}, {}});
    }
}

void LinkPolicy::Introduced(Id id) {
    Connection& connection = m_connections.at(id);
    connection.stage = Stage::Introduced;
    m_calls.erase(connection.key);
    if (!connection.own) {
        m_orders.push_back({Order::Kind::Introduce, id, {}, {}});
    }
}

void LinkPolicy::Heard(Id id, Time now) {
    if (const auto connection = m_connections.find(id); connection != m_connections.end()) {
        connection->second.heard = now;
    }
}

void LinkPolicy::Ended(Id id, End end, Time now) {
    if (const auto connection = m_connections.find(id); connection != m_connections.end()) {
        Close(connection, now, end);
    }
}

void LinkPolicy::EndAll(Time now) {
    while (!m_connections.empty()) {
        Close(m_connections.begin(), now, End::Refused);
    }
}

LinkPolicy::Connections::iterator LinkPolicy::Close(Connections::iterator connection, Time now, End end) {
    const auto [id, ended] = *connection;
    m_orders.push_back({Order::Kind::Close, id, {}, {}});
    if (ended.stage == Stage::Introduced) {
        m_orders.push_back({Order::Kind::Gone, id, ended.key, {}});
    }
    if (ended.own) {
        Call& call = m_calls[ended.key];
        const auto retry =
            std::min<ZClock::duration>(kFirstRetry * (1U << std::min(call.failures++, 2U)), kSlowestRetry);
        call.again = now + (end == End::Lost      ? retry
                            : end == End::Refused ? kRetryWhenRefused
                                                  : ZClock::duration(kRetryWrongDevice));
    }
    return m_connections.erase(connection);
}

bool LinkPolicy::IsIntroduced(Id id) const {
    const auto connection = m_connections.find(id);
    return connection != m_connections.end() && connection->second.stage == Stage::Introduced;
}

std::optional<LinkPolicy::Id> LinkPolicy::Session(const std::string& key) const {
    const auto found = std::ranges::find_if(m_connections, [&key](const auto& entry) {
        return entry.second.key == key && entry.second.stage == Stage::Introduced;
    });
    return found == m_connections.end() ? std::nullopt : std::optional(found->first);
}

LinkPolicy::Time LinkPolicy::Advance(Time now) {
    Time next = now + kLongestSleep;
    CallDue(now, next);
    for (auto connection = m_connections.begin(); connection != m_connections.end();) {
        Watch(connection++, now, next);
    }
    return next;
}

bool LinkPolicy::IsCalled(const std::string& key) const {
    return std::ranges::any_of(m_connections, [&](const auto& entry) {
        const Connection& connection = entry.second;
        // Of two calls the other one counts, and stands.
        const bool isNeedless = connection.stage == Stage::Introduced && !OwnCallCounts(key);
        return connection.key == key && (connection.own || isNeedless);
    });
}

void LinkPolicy::CallDue(Time now, Time& next) {
    for (const ZLinkPin& pin : m_pins) {
        if (pin.address.empty() || IsCalled(pin.publicKey)) {
            continue;
        }
        const auto call = m_calls.find(pin.publicKey);
        if (call != m_calls.end() && call->second.again > now) {
            next = std::min(next, call->second.again);
            continue;
        }
        m_connections.emplace(m_nextId, Connection{true, Stage::Calling, {}, pin.publicKey, now, now});
        m_orders.push_back({Order::Kind::Call, m_nextId++, pin.publicKey, pin.address});
    }
}

void LinkPolicy::Watch(Connections::iterator entry, Time now, Time& next) {
    Connection& connection = entry->second;
    Time end = connection.heard + kHeartbeatsToLive * m_heartbeat;
    if (connection.stage != Stage::Introduced) {
        const ZClock::duration limit = connection.stage == Stage::Calling   ? ZClock::duration(kConnectLimit)
                                       : connection.stage == Stage::Shaking ? ZClock::duration(kHandshakeLimit)
                                                                            : ZClock::duration(kIntroductionLimit);
        end = connection.since + limit;
    }
    if (end <= now) {
        Close(entry, now);
        next = std::min(next, now);  // it may be called again
        return;
    }
    next = std::min(next, end);
    if (connection.stage >= Stage::Open) {
        Time probe = std::max(connection.heard, connection.probed) + m_heartbeat;
        if (probe <= now) {
            m_orders.push_back({Order::Kind::Probe, entry->first, {}, {}});
            connection.probed = now;
            probe = now + m_heartbeat;
        }
        next = std::min(next, probe);
    }
}
