#include "NodeComm/ZNodeCommZmq.h"

#include <condition_variable>
#include <regex>

#include "NodeComm/zmq/LinkLoop.h"
#include "ZMessages/Messages.h"
#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodeCommZmq)

namespace {

using Clock = ZMailbox::Clock;
using Milliseconds = std::chrono::milliseconds;
using ErrorCodes = ZFrameworkErrorCodes;

constexpr std::ptrdiff_t kMostOwed = 256;  // to one device
constexpr Milliseconds kLongestWait = std::chrono::hours(1);
constexpr const char* kNotConnected = "The device is not connected";

void LogLine(int level, int line, const char* function, const std::string& text) {
    ZLog::Instance().Log(level, "ZNodeCommZmq", "NodeComm/ZNodeCommZmq", function, line, "%s", text.c_str());
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

    void OnArrived(const std::string& key, const std::shared_ptr<ZMessage>& introduction) override {
        {
            const std::lock_guard lock(m_comm.m_mutex);
            m_comm.m_connected.insert(key);
        }
        m_observer.OnPeerArrived(key, introduction);
    }

    void OnGone(const std::string& key) override {
        std::vector<std::uint64_t> ended;
        {
            const std::lock_guard lock(m_comm.m_mutex);
            m_comm.m_connected.erase(key);
            std::erase_if(m_comm.m_owed, [&key](const auto& entry) { return entry.second.key == key; });
            for (const auto& [number, asked] : m_comm.m_asked) {
                if (asked.key == key) {
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
                if (message.message && IsAskedFrom(key, number)) {
                    const bool answered = message.header->m_Kind == ZLinkKind::Answer;
                    m_comm.Complete(number, answered ? ZPublishOutcome::Delivered : ZPublishOutcome::NoAnswer,
                                    message.message);
                }
                return;
            default:
                LogLine(3, __LINE__, __func__, "A message of an unknown kind from device " + key + " is dropped");
        }
    }

    Clock::time_point OnTime(Clock::time_point now) override {
        auto next = now + kLongestWait;
        std::vector<std::uint64_t> late;
        {
            const std::lock_guard lock(m_comm.m_mutex);
            std::erase_if(m_comm.m_owed, [now](const auto& entry) { return entry.second.deadline <= now; });
            for (const auto& [number, asked] : m_comm.m_asked) {
                if (asked.deadline <= now) {
                    late.push_back(number);
                } else {
                    next = std::min(next, asked.deadline);
                }
            }
            for (const auto& [number, owed] : m_comm.m_owed) {
                next = std::min(next, owed.deadline);
            }
        }
        for (const std::uint64_t number : late) {
            m_comm.Fail(number, ZPublishOutcome::NoAnswer, "The device did not answer in time");
        }
        return next;
    }

private:
    bool IsAskedFrom(const std::string& key, std::uint64_t number) {
        const std::lock_guard lock(m_comm.m_mutex);
        const auto asked = m_comm.m_asked.find(number);
        return asked != m_comm.m_asked.end() && asked->second.key == key;
    }

    void TakeRequest(const std::string& key, const LinkMessage& request) {
        const ZCommEndpoint endpoint({}, static_cast<ZEndpointType>(request.header->m_EndpointType),
                                     request.header->m_Keyword);
        const std::string place = ToStdString(endpoint.Text());
        ZPublishOutcome outcome = ZPublishOutcome::Refused;
        std::uint64_t owed = 0;
        if (request.message && m_comm.m_exports.contains(place)) {
            const bool listed = request.header->m_Request == 0 || Owe(key, *request.header, owed);
            if (owed != 0) {
                request.message->SetResponseSource(std::make_shared<ZResponseSource>(m_comm.weak_from_this(), owed));
            }
            // Without waiting for room: this thread is everybody's.
            outcome = listed ? m_comm.m_local->Publish(endpoint, request.message, nullptr, {false, false, {}})
                             : ZPublishOutcome::QueueFull;
        }
        if (outcome != ZPublishOutcome::Delivered) {
            Refuse(key, request.header->m_Request, owed, outcome, place);
        }
    }

    bool Owe(const std::string& key, const ZLinkHeader& header, std::uint64_t& number) {
        const std::lock_guard lock(m_comm.m_mutex);
        const auto isItsOwn = [&key](const auto& owed) { return owed.second.key == key; };
        if (std::ranges::count_if(m_comm.m_owed, isItsOwn) >= kMostOwed) {
            return false;
        }
        const auto wait = std::min(Milliseconds(header.m_TimeoutMilliseconds), kLongestWait);
        number = m_comm.m_nextNumber++;
        m_comm.m_owed.emplace(number, Owed{key, header.m_Request, Clock::now() + wait});
        return true;
    }

    void Refuse(const std::string& key, std::uint64_t asked, std::uint64_t owed, ZPublishOutcome outcome,
                const std::string& place) {
        const std::string reason = outcome == ZPublishOutcome::Refused        ? " is not open to other devices"
                                   : outcome == ZPublishOutcome::NoSubscriber ? " is nobody's"
                                                                              : " has no room now";
        LogLine(3, __LINE__, __func__, "A message from device " + key + " is refused: " + place + reason);
        {
            const std::lock_guard lock(m_comm.m_mutex);
            m_comm.m_owed.erase(owed);
        }
        if (asked != 0) {
            m_comm.m_loop->Send(key, Reply(ZLinkKind::Failure, asked, Refusal(CodeOf(outcome), place + reason)));
        }
    }

    ZNodeCommZmq& m_comm;
    ZLinkObserver& m_observer;
};

ZNodeCommZmq::ZNodeCommZmq() = default;

ZNodeCommZmq::~ZNodeCommZmq() {
    Close();
}

bool ZNodeCommZmq::IsAddress(const std::string& text) {
    static const std::regex form("tcp://(\\*|[A-Za-z0-9_.:\\[\\]%-]+):[0-9]{1,5}");
    return text.size() < 256 && std::regex_match(text, form);
}

bool ZNodeCommZmq::Start(const ZLinkSettings& settings, std::shared_ptr<ZNodeComm> local, ZLinkObserver& observer,
                         std::string& error) {
    m_local = std::move(local);
    m_exports = settings.exports;
    m_receiver = std::make_unique<Receiver>(*this, observer);
    m_loop =
        std::make_unique<LinkLoop>(LinkSocketSettings{{settings.publicKey, settings.secretKey}, settings.heartbeat},
                                   settings.listenAddress, settings.introduction, *m_receiver);
    return m_loop->Start(error);
}

void ZNodeCommZmq::SetPins(std::vector<ZLinkPin> pins) {
    m_loop->SetPins(std::move(pins));
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
        const std::lock_guard lock(m_mutex);
        header.m_Request = m_nextNumber++;
        m_asked.emplace(header.m_Request, Asked{key, Clock::now() + timeout, std::move(done)});
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
    Owed owed;
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_owed.find(source.Request());
        if (found == m_owed.end()) {
            return false;
        }
        owed = found->second;
        m_owed.erase(found);
    }
    return m_loop->Send(owed.key, Reply(ZLinkKind::Answer, owed.number, response));
}

void ZNodeCommZmq::Close() {
    m_closed = true;
    if (!m_loop) {
        return;
    }
    m_loop->Stop();
    std::vector<std::uint64_t> left;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& [number, asked] : m_asked) {
            left.push_back(number);
        }
    }
    for (const std::uint64_t number : left) {
        Fail(number, ZPublishOutcome::Closed, "This device is shutting down");
    }
}

void ZNodeCommZmq::SetRequestTimeout(Milliseconds timeout) {
    m_requestTimeout = timeout.count();
}

bool ZNodeCommZmq::IsConnected(const std::string& key) const {
    const std::lock_guard lock(m_mutex);
    return m_connected.contains(key);
}

void ZNodeCommZmq::Complete(std::uint64_t number, ZPublishOutcome outcome, const std::shared_ptr<ZMessage>& message) {
    Completion done;
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_asked.find(number);
        if (found == m_asked.end()) {
            return;
        }
        done = std::move(found->second.done);
        m_asked.erase(found);
    }
    if (done) {
        done(outcome, message);
    }
}

void ZNodeCommZmq::Fail(std::uint64_t number, ZPublishOutcome outcome, const char* reason) {
    Complete(number, outcome, Refusal(CodeOf(outcome), reason));
}
