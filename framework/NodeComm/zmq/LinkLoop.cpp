#include "NodeComm/zmq/LinkLoop.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "ZShared/ZLog.h"

namespace {

using Clock = ZMailbox::Clock;
using Milliseconds = std::chrono::milliseconds;

constexpr const char* kAuthenticatorAddress = "inproc://zeromq.zap.01";  // fixed by RFC 27 of the ZeroMQ project
constexpr std::size_t kWaitingMessages = 1024;
constexpr std::size_t kMostTurnedAway = 256;
constexpr auto kListenAgainAfter = Milliseconds(500);
constexpr auto kCallAgainAfter = Milliseconds(500);
constexpr auto kRoomAgainAfter = Milliseconds(5);
constexpr auto kRebuildAfter = std::chrono::seconds(1);
constexpr Milliseconds kLongestSleep = std::chrono::hours(1);

template <typename... Args>
void LogLine(int level, int line, const char* format, Args... args) {
    ZLog::Instance().Log(level, "ZNodeCommZmq", "NodeComm/ZNodeCommZmq", "Link", line, format, args...);
}

LinkMessage Hello(const std::shared_ptr<ZMessage>& introduction) {
    return {Z_MAKE(ZLinkHeader), introduction};
}

}  // namespace

LinkLoop::LinkLoop(LinkSocketSettings settings, std::string listenAddress, std::shared_ptr<ZMessage> hello,
                   LinkEvents& events)
    : m_settings(std::move(settings)),
      m_listenAddress(std::move(listenAddress)),
      m_hello(std::move(hello)),
      m_events(events),
      m_wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

LinkLoop::~LinkLoop() {
    Stop();
}

bool LinkLoop::Start(std::string& error) {
    if (!m_wakeUp) {
        error = "there is no descriptor for waking the link up";
        return false;
    }
    try {
        m_authenticator = zmq::socket_t(m_context, zmq::socket_type::rep);
        m_authenticator.bind(kAuthenticatorAddress);
        m_thread = std::thread([this] { Run(); });
        return true;
    } catch (const std::exception& failure) {
        error = failure.what();
        return false;
    }
}

void LinkLoop::Stop() {
    {
        const std::lock_guard lock(m_commandsMutex);
        m_commands.stop = true;
    }
    Wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void LinkLoop::SetPins(std::vector<ZLinkPin> pins) {
    {
        const std::lock_guard lock(m_commandsMutex);
        m_commands.pins = std::move(pins);
        m_commands.newPins = true;
    }
    Wake();
}

bool LinkLoop::Send(const std::string& key, const LinkMessage& message) {
    LinkFrames frames = EncodeLinkMessage(message);
    {
        const std::lock_guard lock(m_commandsMutex);
        const auto waiting = m_waiting.find(key);
        const std::size_t size = LinkSize(frames);
        if (waiting == m_waiting.end() || m_commands.messages.size() >= kWaitingMessages ||
            waiting->second + size > kLongestLinkMessage) {
            return false;
        }
        waiting->second += size;
        m_commands.messages.emplace_back(key, std::move(frames));
    }
    Wake();
    return true;
}

void LinkLoop::Wake() {
    static_cast<void>(::eventfd_write(m_wakeUp.Get(), 1));
}

void LinkLoop::Run() {
    bool running = true;
    while (running) {
        try {
            running = Turn();
        } catch (const std::exception& failure) {
            // Out of memory or descriptors: all connections are built anew, a little later.
            LogLine(4, __LINE__, "The link failed and is set up again: %s", failure.what());
            CloseConnections();
            m_listenAgain = Clock::now() + kRebuildAfter;
            std::this_thread::sleep_for(kRebuildAfter);
            const std::lock_guard lock(m_commandsMutex);
            running = !m_commands.stop;  // the next turn may fail before it looks
        }
    }
    CloseConnections();
    m_authenticator.close();
}

void LinkLoop::CloseConnections() {
    m_callers.clear();
    m_listener.reset();
    while (!m_sessions.empty()) {
        try {
            EndSession(m_sessions.begin()->first);
        } catch (const std::exception& failure) {
            LogLine(4, __LINE__, "The end of a connection could not be told: %s", failure.what());
        }
    }
}

bool LinkLoop::Turn() {
    const auto now = Clock::now();
    auto next = m_events.OnTime(now);
    if (!m_listener && !m_listenAddress.empty()) {
        TryListen();
        next = m_listener ? next : std::min(next, m_listenAgain);
    }
    next = std::min(next, CallPinned(now));
    auto limit = std::clamp(std::chrono::ceil<Milliseconds>(next - now), Milliseconds(0), kLongestSleep);
    Poll(m_bBlocked ? std::min<Milliseconds>(limit, kRoomAgainAfter) : limit);

    eventfd_t count = 0;
    static_cast<void>(::eventfd_read(m_wakeUp.Get(), &count));
    Commands commands;
    {
        const std::lock_guard lock(m_commandsMutex);
        std::swap(commands, m_commands);
        m_commands.stop = commands.stop;
    }
    if (commands.stop) {
        return false;
    }
    HandleEvents();  // before messages: a connection's end comes before what its successor sends
    if (commands.newPins) {
        ApplyPins(std::move(commands.pins));
    }
    for (auto& [key, frames] : commands.messages) {
        if (const auto session = m_sessions.find(key); session != m_sessions.end()) {
            session->second.outbox.push_back(std::move(frames));
        }
    }
    Authenticate();
    ReceiveAll();
    FlushOutboxes();
    return true;
}

void LinkLoop::Poll(Milliseconds limit) {
    std::vector<zmq::pollitem_t> items{{nullptr, m_wakeUp.Get(), ZMQ_POLLIN, 0},
                                       {m_authenticator.handle(), 0, ZMQ_POLLIN, 0}};
    const auto add = [&items](LinkSocket& socket) {
        items.push_back({socket.Handle(), 0, ZMQ_POLLIN, 0});
        items.push_back({socket.EventsHandle(), 0, ZMQ_POLLIN, 0});
    };
    if (m_listener) {
        add(*m_listener);
    }
    for (auto& [key, socket] : m_callers) {
        add(socket);
    }
    zmq::poll(items, limit);
}

void LinkLoop::ApplyPins(std::vector<ZLinkPin> pins) {
    std::swap(m_pins, pins);
    m_turnedAway.clear();
    for (auto& [key, time] : m_callAgain) {
        time = {};  // what kept them out may be mended
    }
    bool listenAnew = false;
    for (const ZLinkPin& old : pins) {
        const ZLinkPin* pin = FindPin(old.publicKey);
        if (pin != nullptr && pin->address == old.address) {
            continue;
        }
        const auto session = m_sessions.find(old.publicKey);
        // A device that is no longer called may have called as well, without counting: it does so again.
        listenAnew =
            listenAnew || !old.address.empty() || (session != m_sessions.end() && !session->second.number.empty());
        EndSession(old.publicKey);
        m_callers.erase(old.publicKey);
    }
    if (listenAnew) {
        // The library can't close one connection of a listener. The others come back by themselves.
        for (auto session = m_sessions.begin(); session != m_sessions.end();) {
            const auto ended = session++;
            if (!ended->second.number.empty()) {
                EndSession(ended->first);
            }
        }
        m_listener.reset();
    }
}

Clock::time_point LinkLoop::CallPinned(Clock::time_point now) {
    auto next = now + kLongestSleep;
    for (ZLinkPin& pin : m_pins) {
        const auto again = m_callAgain.find(pin.publicKey);
        if (again != m_callAgain.end() && again->second > now) {
            next = std::min(next, again->second);
            continue;
        }
        if (again != m_callAgain.end()) {
            m_callAgain.erase(again);
            DropCaller(pin.publicKey);
        }
        if (pin.address.empty() || m_callers.contains(pin.publicKey)) {
            continue;
        }
        try {
            m_callers.emplace(pin.publicKey, LinkSocket::Caller(m_context, m_settings, pin.publicKey, pin.address));
        } catch (const zmq::error_t& failure) {
            LogLine(4, __LINE__, "%s can't be called at %s: %s", pin.name.c_str(), pin.address.c_str(), failure.what());
            if (failure.num() == EINVAL || failure.num() == EPROTONOSUPPORT) {
                pin.address.clear();  // it will never be one
            } else {
                next = std::min(next, m_callAgain[pin.publicKey] = now + kRebuildAfter);
            }
        }
    }
    return next;
}

void LinkLoop::DropCaller(const std::string& key) {
    const auto caller = m_callers.find(key);
    const auto session = m_sessions.find(key);
    if (caller != m_callers.end() && session != m_sessions.end() && session->second.socket == &caller->second) {
        EndSession(key);
    }
    m_callers.erase(key);
}

void LinkLoop::TryListen() {
    if (Clock::now() < m_listenAgain) {
        return;
    }
    LinkSocket socket = LinkSocket::Listener(m_context, m_settings);
    try {
        socket.Bind(m_listenAddress);
        m_listener.emplace(std::move(socket));
        m_listenFailed = false;
        LogLine(2, __LINE__, "Listening for devices on %s", m_listenAddress.c_str());
    } catch (const zmq::error_t& failure) {
        if (!m_listenFailed && m_listenAgain != Clock::time_point{}) {
            m_listenFailed = true;
            LogLine(4, __LINE__, "Can't listen on %s yet: %s", m_listenAddress.c_str(), failure.what());
        }
        m_listenAgain = Clock::now() + kListenAgainAfter;
    }
}

void LinkLoop::HandleEvents() {
    if (m_listener) {
        for (const LinkSocketEvent& event : m_listener->TakeEvents()) {
            const auto ended = std::ranges::find_if(m_sessions, [&event](const auto& entry) {
                return !entry.second.number.empty() && entry.second.descriptor == event.descriptor;
            });
            if (event.kind == LinkSocketEvent::Kind::Lost && ended != m_sessions.end()) {
                EndSession(ended->first);
            }
        }
    }
    for (auto& [key, socket] : m_callers) {
        for (const LinkSocketEvent& event : socket.TakeEvents()) {
            OnCallerEvent(key, socket, event);
        }
    }
}

void LinkLoop::OnCallerEvent(const std::string& key, LinkSocket& socket, const LinkSocketEvent& event) {
    switch (event.kind) {
        case LinkSocketEvent::Kind::Connected: {
            if (HasCall(key, false) && !OwnCallCounts(key)) {
                return;
            }
            EndSession(key);
            m_callAgain.erase(key);
            Session& session = m_sessions[key];
            session.socket = &socket;
            session.descriptor = event.descriptor;
            session.outbox.push_back(EncodeLinkMessage(Hello(m_hello)));
            m_turnedAway.erase(key);
            return;
        }
        case LinkSocketEvent::Kind::Lost:
            if (HasCall(key, true)) {
                EndSession(key);
            }
            return;
        case LinkSocketEvent::Kind::Refused:
            CallAgainLater(key, "turned this device away: it has not pinned this device's key");
            return;
        case LinkSocketEvent::Kind::Foreign:
            CallAgainLater(key, "does not answer as a device of this kind does");
            return;
    }
}

void LinkLoop::CallAgainLater(const std::string& key, const char* what) {
    m_callAgain.emplace(key, Clock::now() + kCallAgainAfter);
    if (m_turnedAway.insert(key).second) {
        const ZLinkPin* pin = FindPin(key);
        LogLine(3, __LINE__, "%s %s", pin == nullptr ? key.c_str() : pin->name.c_str(), what);
        m_events.OnRefused(key);
    }
}

void LinkLoop::Authenticate() {
    std::vector<zmq::message_t> request;
    zmq::message_t frame;
    while (m_authenticator.recv(frame, zmq::recv_flags::dontwait)) {
        request.clear();
        request.push_back(std::move(frame));
        while (request.back().more()) {
            request.emplace_back();
            static_cast<void>(m_authenticator.recv(request.back(), zmq::recv_flags::none));
        }
        std::string key;
        bool admitted = false;
        try {
            admitted = IsAdmitted(request, key);
        } catch (const std::exception& failure) {  // there must be an answer before there can be another question
            LogLine(4, __LINE__, "A device is turned away: %s", failure.what());
        }
        const std::string number = request.size() > 1 ? request[1].to_string() : std::string();
        const std::array<std::string, 6> answer{
            "1.0", number, admitted ? "200" : "400", admitted ? "OK" : "Not pinned", std::move(key), ""};
        for (std::size_t part = 0; part < answer.size(); ++part) {
            m_authenticator.send(zmq::buffer(answer[part]),
                                 part + 1 < answer.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
        }
    }
}

/// A request: version, number, domain, address, identity, mechanism, and the key's 32 bytes.
bool LinkLoop::IsAdmitted(const std::vector<zmq::message_t>& request, std::string& key) {
    if (request.size() != 7 || request[5].to_string_view() != "CURVE" || request[6].size() != LinkKeyBytes().size()) {
        return false;
    }
    LinkKeyBytes bytes{};
    std::copy_n(request[6].data<std::uint8_t>(), bytes.size(), bytes.begin());
    key = LinkKeyText(bytes);
    const bool pinned = FindPin(key) != nullptr;
    if (!pinned && m_turnedAway.insert(key).second) {
        if (m_turnedAway.size() > kMostTurnedAway) {
            m_turnedAway = {key};  // the others are named again when they come again
        }
        LogLine(3, __LINE__, "A device at %s was turned away: nobody pinned its key %s", request[3].to_string().c_str(),
                key.c_str());
        m_events.OnRefused(key);
    }
    return pinned;
}

void LinkLoop::ReceiveAll() {
    while (m_listener) {
        auto frames = m_listener->Receive();
        if (!frames) {
            break;
        }
        std::string number = frames->front().to_string();
        frames->erase(frames->begin());
        const char* key = frames->empty() ? nullptr : ::zmq_msg_gets(frames->front().handle(), "User-Id");
        if (key != nullptr && FindPin(key) != nullptr) {
            Take(std::string(key), *m_listener, std::move(number), std::move(*frames));
        } else if (key != nullptr) {  // its pin was taken away after it was let in
            LogLine(3, __LINE__, "A message from device %s is dropped: nobody pins its key any more", key);
        }
    }
    for (auto& [key, socket] : m_callers) {
        while (auto frames = socket.Receive()) {
            Take(key, socket, {}, std::move(*frames));
        }
    }
}

void LinkLoop::Take(const std::string& key, LinkSocket& socket, std::string number, LinkFrames frames) {
    const int descriptor = ::zmq_msg_get(frames.front().handle(), ZMQ_SRCFD);
    std::string error;
    auto message = DecodeLinkMessage(std::move(frames), error);
    if (!message) {
        LogLine(3, __LINE__, "A message from device %s is dropped: %s", key.c_str(), error.c_str());
        return;
    }
    const bool isHello = message->header->m_Kind == ZLinkKind::Hello;
    if (isHello) {
        HandleEvents();  // first the end of the device's last connection, whose descriptor this one may have
    }
    auto session = m_sessions.find(key);
    if (isHello && session == m_sessions.end() && number.empty()) {
        return;  // what this device called has gone away again
    }
    if (isHello && (number.empty() ? HasCall(key, false) : HasCall(key, true) && OwnCallCounts(key))) {
        return;  // the other one of two connections counts
    }
    if (isHello && (session == m_sessions.end() || session->second.number != number)) {
        EndSession(key);
        session = m_sessions.emplace(key, Session{&socket, std::move(number), descriptor, false, {}}).first;
        Introduce(session->second);
    }
    if (session == m_sessions.end() || session->second.introduced == isHello) {
        LogLine(3, __LINE__, "A message from device %s is dropped: %s", key.c_str(),
                isHello ? "it introduces itself twice" : "it has not introduced itself");
        return;
    }
    if (!isHello) {
        m_events.OnMessage(key, std::move(*message));
        return;
    }
    session->second.introduced = true;
    {
        const std::lock_guard lock(m_commandsMutex);
        m_waiting[key] = 0;
    }
    m_events.OnArrived(key, message->message);
}

void LinkLoop::Introduce(Session& session) {
    session.outbox.push_back(EncodeLinkMessage(Hello(m_hello)));
}

void LinkLoop::FlushOutboxes() {
    m_bBlocked = false;
    std::vector<std::string> gone;
    for (auto& [key, session] : m_sessions) {
        try {
            while (!session.outbox.empty()) {
                LinkFrames& frames = session.outbox.front();
                const std::size_t size = LinkSize(frames);
                if (!session.number.empty()) {
                    frames.emplace(frames.begin(), session.number.data(), session.number.size());
                }
                if (!session.socket->Send(frames)) {
                    if (!session.number.empty()) {
                        frames.erase(frames.begin());
                    }
                    m_bBlocked = true;
                    break;
                }
                session.outbox.pop_front();
                const std::lock_guard lock(m_commandsMutex);
                if (const auto waiting = m_waiting.find(key); waiting != m_waiting.end()) {
                    waiting->second -= std::min(waiting->second, size);
                }
            }
        } catch (const zmq::error_t&) {
            gone.push_back(key);
        }
    }
    for (const std::string& key : gone) {
        EndSession(key);
    }
}

void LinkLoop::EndSession(std::string key) {
    const auto session = m_sessions.find(key);
    if (session == m_sessions.end()) {
        return;
    }
    const bool introduced = session->second.introduced;
    if (!session->second.number.empty() && m_callers.contains(key)) {
        m_callAgain.emplace(key, Clock::now());  // the own call, which did not count, does now
    }
    m_sessions.erase(session);
    {
        const std::lock_guard lock(m_commandsMutex);
        m_waiting.erase(key);
    }
    if (introduced) {
        m_events.OnGone(key);
    }
}

bool LinkLoop::HasCall(const std::string& key, bool own) const {
    const auto session = m_sessions.find(key);
    return session != m_sessions.end() && session->second.number.empty() == own;
}

const ZLinkPin* LinkLoop::FindPin(const std::string& key) const {
    const auto found = std::ranges::find(m_pins, key, &ZLinkPin::publicKey);
    return found == m_pins.end() ? nullptr : &*found;
}
