#include "NodeLink/LinkLoop.h"

#include <poll.h>

#include <algorithm>

#include "ZShared/ZLog.h"

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZNodeCommZmq");
}

constexpr std::size_t kMostWaiting = std::size_t{16} << 20U;  // bytes, for each device
constexpr int kReadsInARow = 4;                               // from one device, before the others have their turn
constexpr int kAcceptsInARow = 64;
constexpr auto kListenAgainAfter = std::chrono::milliseconds(500);
constexpr auto kRebuildAfter = std::chrono::seconds(1);

LinkMessage Hello(const std::shared_ptr<ZMessage>& introduction) {
    return {Z_MAKE(ZLinkHeader), introduction};
}

}  // namespace

LinkLoop::LinkLoop(Settings settings, std::shared_ptr<ZMessage> hello, LinkEvents& events)
    : m_settings(std::move(settings)),
      m_hello(std::move(hello)),
      m_events(events),
      m_policy(m_settings.keys.publicKey, m_settings.heartbeat) {}

LinkLoop::~LinkLoop() {
    Stop();
}

ZResult<void> LinkLoop::Start() {
    try {
        m_thread = std::thread([this] { Run(); });
        return {};
    } catch (const std::exception& failure) {
        return ZError(failure.what());
    }
}

void LinkLoop::Stop() {
    m_commands.Lock()->stop = true;
    Wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void LinkLoop::SetPins(std::vector<ZLinkPin> pins) {
    m_commands.Lock()->pins.push_back(std::move(pins));
    Wake();
}

bool LinkLoop::Send(const std::string& key, const LinkMessage& message) {
    LinkFrames frames = EncodeLinkMessage(message);
    const std::size_t size = LinkSize(frames);
    // The other side would cut the connection.
    const auto isTooLong = [](const LinkFrame& frame) { return frame.text.size() > kLongestLinkFrame; };
    if (size > kLongestLinkMessage || std::ranges::any_of(frames, isTooLong)) {
        return false;
    }
    {
        const auto commands = m_commands.Lock();
        const auto waiting = commands->waiting.find(key);
        if (waiting == commands->waiting.end() || waiting->second + size > kMostWaiting) {
            return false;
        }
        waiting->second += size;
        commands->messages.emplace_back(key, std::move(frames));
    }
    Wake();
    return true;
}

void LinkLoop::Run() {
    ZLogLimit failures;
    bool running = true;
    bool failed = false;
    while (running) {
        try {
            if (std::exchange(failed, false)) {
                EndAll();
            }
            running = Turn();
        } catch (const std::exception& failure) {
            // Out of memory: all connections are built anew, a little later.
            failed = true;
            if (const auto more = failures.Admit("")) {
                Z_LOG(4, "The link failed and is set up again: %s%s", failure.what(), *more);
            }
            running = Rest(ZClock::now() + kRebuildAfter);
        }
    }
    try {
        EndAll();
    } catch (const std::exception& failure) {
        Z_LOG(4, "The end of a connection could not be told: %s", failure.what());
    }
}

bool LinkLoop::Rest(ZClock::time_point until) {
    while (!m_commands.Lock()->stop) {
        if (ZClock::now() >= until) {
            return true;
        }
        pollfd entry{m_wakeUp.Descriptor(), POLLIN, 0};
        ::poll(&entry, 1, PollTimeout(until));
        m_wakeUp.Clear();
    }
    return false;
}

void LinkLoop::EndAll() {
    m_policy.EndAll(ZClock::now());
    Obey();
    m_connections.clear();
}

bool LinkLoop::Turn() {
    auto next = m_events.OnTime(ZClock::now());
    next = std::min(next, TryListen());
    next = std::min(next, m_policy.Advance(ZClock::now()));
    Obey();
    for (auto& [id, connection] : m_connections) {
        Flush(id, connection);
    }
    Obey();
    Poll(next);
    return TakeCommands();
}

ZClock::time_point LinkLoop::TryListen() {
    const auto now = ZClock::now();
    m_listenerRests = m_listenerRests && now < m_listenAgain;
    if (m_settings.listenAddress.empty() || (m_listener && !m_listenerRests)) {
        return ZClock::time_point::max();
    }
    if (now < m_listenAgain || m_listener) {
        return m_listenAgain;
    }
    const bool isFirst = m_listenAgain == ZClock::time_point{};
    auto listener = ListenTcp(m_settings.listenAddress);
    if (listener) {
        m_listener = std::move(*listener);
        Z_LOG(2, "Listening for devices on %s", m_settings.listenAddress);
        return ZClock::time_point::max();
    }
    m_listenAgain = now + kListenAgainAfter;
    // The first time another one's end may not be over yet.
    if (const auto more = isFirst ? std::nullopt : m_strangers.Admit("listen")) {
        Z_LOG(4, "Can't listen on %s yet: %s%s", m_settings.listenAddress, listener.error().text, *more);
    }
    return m_listenAgain;
}

void LinkLoop::Poll(ZClock::time_point until) {
    std::vector<pollfd> items{{m_wakeUp.Descriptor(), POLLIN, 0}, {m_listenerRests ? -1 : m_listener.Get(), POLLIN, 0}};
    const std::size_t own = items.size();
    std::vector<Id> ids;
    for (const auto& [id, connection] : m_connections) {
        items.push_back({connection.Descriptor(), connection.Events(), 0});
        ids.push_back(id);
    }
    if (::poll(items.data(), items.size(), PollTimeout(until)) <= 0) {
        return;
    }
    m_wakeUp.Clear();
    for (std::size_t index = 0; index < ids.size(); ++index) {
        if (items[own + index].revents != 0) {
            Serve(ids[index], items[own + index].revents);
            Obey();
        }
    }
    if (items[1].revents != 0) {
        AcceptAll();
    }
}

bool LinkLoop::TakeCommands() {
    std::vector<std::vector<ZLinkPin>> pins;
    std::vector<std::pair<std::string, LinkFrames>> messages;
    {
        const auto commands = m_commands.Lock();
        if (commands->stop) {
            return false;
        }
        std::swap(pins, commands->pins);
        std::swap(messages, commands->messages);
    }
    for (auto& each : pins) {  // one after the other: a pin that went and came again ends its connection
        m_policy.SetPins(std::move(each), ZClock::now());
        m_strangers.Clear();
        Obey();
    }
    for (auto& [key, frames] : messages) {
        if (const auto session = m_policy.Session(key)) {
            m_connections.at(*session).Queue(std::move(frames));
        }
    }
    return true;
}

void LinkLoop::Obey() {
    using Kind = LinkPolicy::Order::Kind;
    for (auto orders = m_policy.TakeOrders(); !orders.empty(); orders = m_policy.TakeOrders()) {
        for (const auto& [kind, id, key, address] : orders) {
            const auto connection = m_connections.find(id);
            if (kind == Kind::Gone) {
                SayGone(key);
            } else if (kind == Kind::Call) {
                Call(id, key, address);
            } else if (connection == m_connections.end()) {
                continue;  // a call that came to nothing
            } else if (kind == Kind::Close) {
                m_connections.erase(connection);
            } else if (kind == Kind::Introduce) {
                connection->second.Queue(EncodeLinkMessage(Hello(m_hello)));
            } else if (kind == Kind::Probe) {
                connection->second.Wire().Probe();
            }
        }
    }
}

void LinkLoop::SayGone(const std::string& key) {
    m_commands.Lock()->waiting.erase(key);
    m_events.OnGone(key);
}

void LinkLoop::AcceptAll() {
    for (int turn = 0; turn < kAcceptsInARow; ++turn) {
        TcpAddress from;
        auto caller = AcceptTcp(m_listener, from);
        if (!caller) {
            m_listenerRests = true;  // it would be told again and again that somebody calls
            m_listenAgain = ZClock::now() + kListenAgainAfter;
            if (const auto more = m_strangers.Admit("accept")) {
                Z_LOG(4, "A device that calls has to wait: %s%s", caller.error().text, *more);
            }
            return;
        }
        if (!*caller) {
            return;
        }
        const std::string host = from.Host();
        const auto [id, crowded] = m_policy.Accepted(host, ZClock::now());
        if (const auto more = crowded ? m_strangers.Admit("crowd " + host) : std::nullopt) {
            Z_LOG(3, "Too many callers from %s do not say who they are: the oldest are cut off%s", host, *more);
        }
        Obey();
        m_connections.try_emplace(id, std::move(*caller), m_settings.keys, std::string());
    }
}

void LinkLoop::Call(Id id, const std::string& key, const std::string& address) {
    const auto resolved = Resolve(address);
    auto called = !resolved   ? ZResult<ZFileDescriptor>(ZFileDescriptor())
                  : *resolved ? ConnectTcp(**resolved)
                              : ZResult<ZFileDescriptor>(resolved->error());
    if (!called) {
        if (const auto more = m_dropped.Admit("call " + key)) {
            Z_LOG(4, "%s can't be called at %s: %s%s", NameOf(key), address, called.error().text, *more);
        }
    }
    if (called && *called) {
        m_connections.try_emplace(id, std::move(*called), m_settings.keys, key);
    } else {
        m_policy.Ended(id, LinkPolicy::End::Lost, ZClock::now());
    }
}

std::optional<ZResult<TcpAddress>> LinkLoop::Resolve(const std::string& address) {
    if (const auto numeric = NumericTcpAddress(address)) {
        return *numeric;
    }
    const auto lookup = m_lookups.find(address);
    if (lookup == m_lookups.end()) {
        m_lookups.emplace(address, std::async(std::launch::async, ResolveTcpAddress, address));
        return std::nullopt;
    }
    if (lookup->second.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        return std::nullopt;
    }
    auto result = lookup->second.get();
    m_lookups.erase(lookup);
    return result;
}

void LinkLoop::End(Id id, LinkPolicy::End end) {
    m_policy.Ended(id, end, ZClock::now());
}

void LinkLoop::Serve(Id id, short ready) {
    const auto found = m_connections.find(id);
    if (found == m_connections.end()) {
        return;
    }
    LinkConnection& connection = found->second;
    if (connection.IsConnected()) {
        if ((ready & (POLLIN | POLLHUP | POLLERR)) != 0) {
            Receive(id);
        }
    } else if (connection.FinishConnecting()) {
        m_policy.Reached(id, ZClock::now());
    } else {
        End(id);
    }
}

void LinkLoop::Receive(Id id) {
    for (int turn = 0; turn < kReadsInARow; ++turn) {
        const auto found = m_connections.find(id);
        if (found == m_connections.end()) {
            return;
        }
        LinkConnection& connection = found->second;
        const auto count = connection.Read();
        if (!count) {
            End(id);
            return;
        }
        if (*count == 0) {
            return;
        }
        m_policy.Heard(id, ZClock::now());
        for (auto news = connection.Wire().Next(); news != LinkWire::News::None; news = connection.Wire().Next()) {
            if (!TakeNews(id, connection, news)) {
                return;
            }
        }
    }
}

bool LinkLoop::TakeNews(Id id, LinkConnection& connection, LinkWire::News news) {
    const std::string& key = connection.Key();
    switch (news) {
        case LinkWire::News::Asks:
            return Admit(id, connection);
        case LinkWire::News::Open:
            m_policy.Opened(id, key, ZClock::now());
            break;
        case LinkWire::News::Message:
            TakeMessage(id, key, connection.Wire().TakeMessage());
            break;
        case LinkWire::News::Refused:
            if (const auto more = m_dropped.Admit("refused " + key)) {
                Z_LOG(3, "%s turned this device away: it has not pinned this device's key%s", NameOf(key), *more);
                m_events.OnRefused(key);
            }
            End(id, LinkPolicy::End::Refused);
            break;
        case LinkWire::News::Failed:
            TellProblem(id, key, connection.Wire().Problem());
            End(id, LinkPolicy::End::Refused);
            break;
        case LinkWire::News::None:
            break;
    }
    Obey();
    return m_connections.contains(id);
}

void LinkLoop::TellProblem(Id id, const std::string& key, const std::string& problem) {
    const std::string who = key.empty() ? "a caller from " + m_policy.HostOf(id) : NameOf(key);
    if (const auto more = (key.empty() ? m_strangers : m_dropped).Admit(who + problem)) {
        Z_LOG(3, "The connection with %s is cut: %s%s", who, problem, *more);
    }
}

bool LinkLoop::Admit(Id id, LinkConnection& connection) {
    connection.SetKey(connection.Wire().PeerKey());
    const std::string key = connection.Key();
    if (m_policy.FindPin(key) != nullptr) {
        connection.Wire().Admit();
        m_policy.Opened(id, key, ZClock::now());
        Obey();
        return m_connections.contains(id);
    }
    if (const auto more = m_strangers.Admit("unknown " + key)) {
        Z_LOG(3, "A device at %s was turned away: nobody pinned its key %s%s", m_policy.HostOf(id), key, *more);
    }
    m_events.OnRefused(key);
    connection.Wire().Refuse();
    static_cast<void>(connection.Flush());
    End(id);
    Obey();
    return false;
}

void LinkLoop::TakeMessage(Id id, const std::string& key, LinkFrames frames) {
    auto message = DecodeLinkMessage(std::move(frames));
    const bool isHello = message && message->header->m_Kind == ZLinkKind::Hello;
    if (message && isHello != m_policy.IsIntroduced(id)) {
        isHello ? TakeHello(id, key, *message) : m_events.OnMessage(key, std::move(*message));
        return;
    }
    const std::string problem = !message  ? message.error().text
                                : isHello ? "it introduces itself twice"
                                          : "it has not introduced itself";
    if (const auto more = m_dropped.Admit(key + problem)) {
        Z_LOG(3, "A message from device %s is dropped: %s%s", key, problem, *more);
    }
}

void LinkLoop::TakeHello(Id id, const std::string& key, const LinkMessage& message) {
    const auto judged = m_events.OnIntroduced(key, message.message);
    if (!judged) {
        if (const auto more = m_dropped.Admit(key + judged.error().text)) {
            Z_LOG(3, "%s (key %s) is turned away: %s%s", NameOf(key), key, judged.error().text, *more);
        }
        End(id, LinkPolicy::End::WrongDevice);
        return;
    }
    m_policy.Introduced(id);
    Obey();  // its own introduction goes first
    m_commands.Lock()->waiting[key] = 0;
    m_events.OnArrived(key);
}

void LinkLoop::Flush(Id id, LinkConnection& connection) {
    if (!connection.IsConnected()) {
        return;
    }
    const auto taken = connection.Flush();
    if (!taken) {
        End(id);
        return;
    }
    if (*taken > 0) {
        const auto commands = m_commands.Lock();
        if (const auto waiting = commands->waiting.find(connection.Key()); waiting != commands->waiting.end()) {
            waiting->second -= std::min(waiting->second, *taken);
        }
    }
}

std::string LinkLoop::NameOf(const std::string& key) const {
    const ZLinkPin* pin = m_policy.FindPin(key);
    return pin == nullptr ? key : pin->name;
}
