#include "NodeLink/ZNodeCommZmq.h"

#include <condition_variable>
#include <deque>

#include "NodeLink/LinkLoop.h"
#include "ZMessages/Messages.h"
#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodeCommZmq)

namespace {

using Milliseconds = std::chrono::milliseconds;
using ErrorCodes = ZFrameworkErrorCodes;

constexpr std::ptrdiff_t kMostReceived = 256;  // requests of one device that wait for their answer
// Of one device's messages that nodes here have not dealt with yet.
constexpr std::size_t kMostBytes = std::size_t{16} << 20U;
constexpr std::size_t kMostMessages = 4096;
constexpr Milliseconds kLongestWait = std::chrono::hours(1);
constexpr const char* kNotConnected = "The device is not connected";

constexpr ZLogger Log() {
    return ZLogger("ZNodeCommZmq");
}

std::shared_ptr<ZMessage> Refusal(ErrorCodes::ZErrorCode code, const std::string& reason) {
    const auto refusal = Z_MAKE(ZGenericResponseMsg);
    refusal->m_bSuccess = false;
    refusal->m_ErrorCode = code;
    refusal->m_ErrorText = ToZString(reason);
    return refusal;
}

ErrorCodes::ZErrorCode CodeOf(ZPublishOutcome outcome) {
    switch (outcome) {
        case ZPublishOutcome::QueueFull:
            return ErrorCodes::ERRCODE_BUSY;
        case ZPublishOutcome::Refused:
            return ErrorCodes::ERRCODE_NOT_SUPPORTED;
        case ZPublishOutcome::NoSubscriber:
            return ErrorCodes::ERRCODE_NOT_FOUND;
        default:
            return ErrorCodes::ERRCODE_DEVICE_NOT_CONNECTED;
    }
}

LinkMessage Reply(ZLinkKind kind, std::uint64_t number, std::shared_ptr<ZMessage> message) {
    LinkMessage reply{Z_MAKE(ZLinkHeader), std::move(message)};
    reply.header->m_Kind = kind;
    reply.header->m_Request = number;
    return reply;
}

}  // namespace

/// What the link's thread reports, turned into publications, answers and the observer's news.
class ZNodeCommZmq::Receiver : public LinkEvents {
public:
    Receiver(ZNodeCommZmq& comm, ZLinkObserver& observer) : m_comm(comm), m_observer(observer) {}

    ZResult<void> OnIntroduced(const std::string& key, const std::shared_ptr<ZMessage>& introduction) override {
        return m_observer.OnPeerIntroduced(key, introduction);
    }

    void OnArrived(const std::string& key) override {
        m_comm.m_state.Lock()->connected.insert(key);
        m_observer.OnPeerArrived(key);
    }

    void OnGone(const std::string& key) override {
        std::vector<std::uint64_t> ended;
        {
            const auto state = m_comm.m_state.Lock();
            state->connected.erase(key);
            std::erase_if(state->received, [&key](const auto& entry) { return entry.second.key == key; });
            for (const auto& [number, sent] : state->sent) {
                if (sent.key == key) {
                    ended.push_back(number);
                }
            }
        }
        for (const std::uint64_t number : ended) {
            m_comm.Fail(number, ZPublishOutcome::NoAnswer, "The connection to the device was lost");
        }
        m_observer.OnPeerGone(key);
    }

    void OnRefused(const std::string& key) override { m_observer.OnPeerRefused(key); }

    void OnMessage(const std::string& key, LinkMessage message) override {
        const std::uint64_t number = message.header->m_Request;
        switch (message.header->m_Kind) {
            case ZLinkKind::Request:
                TakeRequest(key, message);
                return;
            case ZLinkKind::Answer:
            case ZLinkKind::Failure:
                if (message.message && WasSentTo(key, number)) {
                    const bool answered = message.header->m_Kind == ZLinkKind::Answer;
                    m_comm.Complete(number, answered ? ZPublishOutcome::Delivered : ZPublishOutcome::NoAnswer,
                                    message.message);
                }
                return;
            default:
                if (const auto more = m_limit.Admit(key)) {
                    Z_LOG(3, "A message of an unknown kind from device %s is dropped%s", key, *more);
                }
        }
    }

    ZClock::time_point OnTime(ZClock::time_point now) override {
        auto next = now + kLongestWait;
        std::vector<std::uint64_t> late;
        {
            const auto state = m_comm.m_state.Lock();
            std::erase_if(state->received, [now](const auto& entry) { return entry.second.deadline <= now; });
            for (const auto& [number, sent] : state->sent) {
                if (sent.deadline <= now) {
                    late.push_back(number);
                } else {
                    next = std::min(next, sent.deadline);
                }
            }
            for (const auto& [number, received] : state->received) {
                next = std::min(next, received.deadline);
            }
        }
        for (const std::uint64_t number : late) {
            m_comm.Fail(number, ZPublishOutcome::NoAnswer, "The device did not answer in time");
        }
        return next;
    }

private:
    /// What a device sent and nodes here have not dealt with yet: a node's queue counts messages, not bytes.
    struct Unread {
        std::deque<std::pair<std::weak_ptr<ZMessage>, std::size_t>> messages;
        std::size_t bytes = 0;
    };

    bool WasSentTo(const std::string& key, std::uint64_t number) {
        const auto state = m_comm.m_state.Lock();
        const auto sent = state->sent.find(number);
        return sent != state->sent.end() && sent->second.key == key;
    }

    void TakeRequest(const std::string& key, const LinkMessage& request) {
        const ZCommEndpoint endpoint({}, static_cast<ZEndpointType>(request.header->m_EndpointType),
                                     request.header->m_Keyword);
        const std::string place = ToStdString(endpoint.Text());
        ZPublishOutcome outcome = ZPublishOutcome::Refused;
        std::uint64_t number = 0;
        if (request.message && m_comm.m_exports.contains(place)) {
            const bool fits =
                HasRoom(key, request) && (request.header->m_Request == 0 || NoteReceived(key, *request.header, number));
            if (number != 0) {
                request.message->SetResponseSource(std::make_shared<ZResponseSource>(m_comm.weak_from_this(), number));
            }
            request.message->SetOrigin(std::make_shared<ZRequestOrigin>("device " + NameOf(key), ""));
            // Without waiting for room: this thread is everybody's.
            outcome = fits ? m_comm.m_local->Publish(endpoint, request.message, nullptr, {false, false, {}})
                           : ZPublishOutcome::QueueFull;
        }
        if (outcome != ZPublishOutcome::Delivered) {
            Refuse(key, request.header->m_Request, number, outcome, place);
        }
    }

    std::string NameOf(const std::string& key) const {
        const auto state = m_comm.m_state.Lock();
        const auto found = state->names.find(key);
        return found == state->names.end() ? key.substr(0, 8) : found->second;
    }

    bool HasRoom(const std::string& key, const LinkMessage& message) {
        Unread& unread = m_unread[key];
        const auto isFull = [&] {
            return unread.bytes + message.size > kMostBytes || unread.messages.size() >= kMostMessages;
        };
        if (isFull()) {
            std::erase_if(unread.messages, [&unread](const auto& entry) {
                const bool isDone = entry.first.expired();
                unread.bytes -= isDone ? entry.second : 0;
                return isDone;
            });
        }
        if (isFull()) {
            return false;
        }
        unread.messages.emplace_back(message.message, message.size);
        unread.bytes += message.size;
        return true;
    }

    bool NoteReceived(const std::string& key, const ZLinkHeader& header, std::uint64_t& number) {
        const auto state = m_comm.m_state.Lock();
        const auto isItsOwn = [&key](const auto& entry) { return entry.second.key == key; };
        if (std::ranges::count_if(state->received, isItsOwn) >= kMostReceived) {
            return false;
        }
        const auto wait = std::min(Milliseconds(header.m_TimeoutMilliseconds), kLongestWait);
        number = state->nextNumber++;
        state->received.emplace(number, Received{key, header.m_Request, ZClock::now() + wait});
        return true;
    }

    void Refuse(const std::string& key, std::uint64_t asked, std::uint64_t number, ZPublishOutcome outcome,
                const std::string& place) {
        const std::string reason = outcome == ZPublishOutcome::Refused        ? " is not open to other devices"
                                   : outcome == ZPublishOutcome::NoSubscriber ? " is nobody's"
                                                                              : " has no room now";
        if (const auto more = m_limit.Admit(key + reason)) {
            Z_LOG(3, "A message from device %s is refused: %s%s%s", key, place, reason, *more);
        }
        m_comm.m_state.Lock()->received.erase(number);
        if (asked != 0) {
            m_comm.m_loop->Send(key, Reply(ZLinkKind::Failure, asked, Refusal(CodeOf(outcome), place + reason)));
        }
    }

    ZNodeCommZmq& m_comm;
    ZLinkObserver& m_observer;
    ZLogLimit m_limit;
    std::map<std::string, Unread> m_unread;  // by the devices' keys
};

ZNodeCommZmq::ZNodeCommZmq() = default;

ZNodeCommZmq::~ZNodeCommZmq() {
    Close();
}

bool ZNodeCommZmq::IsAddress(const std::string& text) const {
    return IsTcpAddress(text);
}

bool ZNodeCommZmq::IsKey(const std::string& text) const {
    return LinkKeyFrom(text).has_value();
}

ZResult<void> ZNodeCommZmq::LoadKeys(const std::filesystem::path& file) {
    auto keys = LoadOrMakeLinkKeys(file);
    if (!keys) {
        return keys.error();
    }
    m_keys = std::move(*keys);
    return {};
}

ZResult<void> ZNodeCommZmq::Start(const ZLinkSettings& settings, std::shared_ptr<ZNodeComm> local,
                                  ZLinkObserver& observer) {
    m_local = std::move(local);
    m_exports = settings.exports;
    m_receiver = std::make_unique<Receiver>(*this, observer);
    try {
        m_loop = std::make_unique<LinkLoop>(LinkLoop::Settings{m_keys, settings.listenAddress, settings.heartbeat},
                                            settings.introduction, *m_receiver);
    } catch (const std::system_error& failure) {
        return ZError(failure.what());
    }
    return m_loop->Start();
}

void ZNodeCommZmq::SetPins(std::vector<ZLinkPin> pins) {
    {
        const auto state = m_state.Lock();
        state->names.clear();
        for (const ZLinkPin& pin : pins) {
            state->names[pin.publicKey] = pin.serialNumber.empty() ? pin.name : pin.serialNumber;
        }
    }
    if (m_loop) {
        m_loop->SetPins(std::move(pins));
    }
}

void ZNodeCommZmq::Send(const std::string& key, const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                        Milliseconds timeout, Completion done) {
    LinkMessage request{Z_MAKE(ZLinkHeader), message};
    ZLinkHeader& header = *request.header;
    header.m_Kind = ZLinkKind::Request;
    header.m_EndpointType = static_cast<std::int32_t>(endpoint.Type());
    header.m_Keyword = endpoint.Name();
    timeout = std::min(timeout, kLongestWait);
    header.m_TimeoutMilliseconds = static_cast<std::uint32_t>(timeout.count());
    {
        const auto state = m_state.Lock();
        header.m_Request = state->nextNumber++;
        state->sent.emplace(header.m_Request, Sent{key, ZClock::now() + timeout, std::move(done)});
    }
    if (m_closed || !IsConnected(key)) {
        Fail(header.m_Request, m_closed ? ZPublishOutcome::Closed : ZPublishOutcome::NoSubscriber, kNotConnected);
    } else if (!m_loop->Send(key, request)) {
        Fail(header.m_Request, ZPublishOutcome::QueueFull, "Too much waits to be sent to the device");
    }
}

bool ZNodeCommZmq::Subscribe(const void* owner, const ZNodeUID& node, const std::shared_ptr<ZMailbox>& mailbox,
                             const ZCommEndpoint& endpoint, Handler handler) {
    return !m_closed && m_local && m_local->Subscribe(owner, node, mailbox, endpoint, std::move(handler));
}

void ZNodeCommZmq::Unsubscribe(const void* owner) {
    if (m_local) {
        m_local->Unsubscribe(owner);
    }
}

ZPublishOutcome ZNodeCommZmq::Publish(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                                      std::shared_ptr<ZMessage>* response, const ZPublishOptions& options) {
    const std::string key = ToStdString(endpoint.Node().Name());
    if (!m_loop || m_closed) {
        return ZPublishOutcome::Closed;
    }
    if (!IsConnected(key)) {
        return m_local->Publish(endpoint, message, response, options);
    }
    if (m_loop->IsOwnThread() && response != nullptr) {
        return ZPublishOutcome::Refused;  // the answer would have to come through this very thread
    }
    struct Wait {
        std::mutex mutex;
        std::condition_variable changed;
        std::optional<ZPublishOutcome> outcome;
        std::shared_ptr<ZMessage> answer;
    };
    const auto wait = std::make_shared<Wait>();
    const auto timeout = options.timeout.count() > 0 ? options.timeout : Milliseconds(m_requestTimeout.load());
    Send(key, endpoint, message, timeout, [wait](ZPublishOutcome outcome, const std::shared_ptr<ZMessage>& answer) {
        const std::lock_guard lock(wait->mutex);
        wait->outcome = outcome;
        wait->answer = answer;
        wait->changed.notify_one();
    });
    std::unique_lock lock(wait->mutex);
    if (response == nullptr) {
        return wait->outcome.value_or(ZPublishOutcome::Delivered);
    }
    wait->changed.wait(lock, [&wait] { return wait->outcome.has_value(); });  // the link's thread sees to the deadline
    if (wait->outcome == ZPublishOutcome::Delivered) {
        *response = wait->answer;
    }
    return *wait->outcome;
}

bool ZNodeCommZmq::Respond(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response) {
    Received request;
    {
        const auto state = m_state.Lock();
        const auto found = state->received.find(source.Request());
        if (found == state->received.end()) {
            return false;
        }
        request = found->second;
        state->received.erase(found);
    }
    return m_loop->Send(request.key, Reply(ZLinkKind::Answer, request.number, response));
}

bool ZNodeCommZmq::IsAwaited(const ZResponseSource& source) const {
    return m_state.Lock()->received.contains(source.Request());
}

void ZNodeCommZmq::Close() {
    m_closed = true;
    if (!m_loop) {
        return;
    }
    m_loop->Stop();
    std::vector<std::uint64_t> left;
    for (const auto state = m_state.Lock(); const auto& [number, sent] : state->sent) {
        left.push_back(number);
    }
    for (const std::uint64_t number : left) {
        Fail(number, ZPublishOutcome::Closed, "This device is shutting down");
    }
}

void ZNodeCommZmq::SetRequestTimeout(Milliseconds timeout) {
    m_requestTimeout = timeout.count();
}

bool ZNodeCommZmq::IsConnected(const std::string& key) const {
    return m_state.Lock()->connected.contains(key);
}

void ZNodeCommZmq::Complete(std::uint64_t number, ZPublishOutcome outcome, const std::shared_ptr<ZMessage>& message) {
    Completion done;
    {
        const auto state = m_state.Lock();
        const auto found = state->sent.find(number);
        if (found == state->sent.end()) {
            return;
        }
        done = std::move(found->second.done);
        state->sent.erase(found);
    }
    if (done) {
        done(outcome, message);
    }
}

void ZNodeCommZmq::Fail(std::uint64_t number, ZPublishOutcome outcome, const char* reason) {
    Complete(number, outcome, Refusal(CodeOf(outcome), reason));
}
