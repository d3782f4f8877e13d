#include "NodeComm/ZNodeCommLocal.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodeCommLocal)

namespace {
constexpr ZLogger Log() {
    return ZLogger("ZNodeComm");
}
}  // namespace

struct ZNodeCommLocal::Subscription : ZMailReceiver {
    const void* owner;
    ZNodeUID node;
    std::shared_ptr<ZMailbox> mailbox;
    Handler handler;
    // Cleared by Unsubscribe, which then waits for a running call: afterwards the handler is never entered. Recursive,
    // for a handler that unsubscribes its own node.
    std::recursive_mutex mutex;
    bool active = true;

    void Receive(std::shared_ptr<ZMessage> message) override {
        const std::lock_guard lock(mutex);
        if (!active) {
            return;
        }
        try {
            handler(message);
        } catch (const std::exception& failure) {
            Z_LOG(4, "An exception left a handler of %s: %s", node.Name(), failure.what());
        } catch (...) {
            Z_LOG(4, "An exception left a handler of %s", node.Name());
        }
    }
};

/// A requester that waits, on its own stack. Whoever has the bus's m_pending may touch it.
struct ZNodeCommLocal::PendingRequest {
    std::condition_variable changed;
    std::shared_ptr<ZMessage> answer;
    bool ended = false;
};

ZNodeCommLocal::ZNodeCommLocal() = default;
ZNodeCommLocal::~ZNodeCommLocal() = default;

bool ZNodeCommLocal::Subscribe(const void* owner, const ZNodeUID& node, const std::shared_ptr<ZMailbox>& mailbox,
                               const ZCommEndpoint& endpoint, Handler handler) {
    const bool nameless = endpoint.Name().empty() && endpoint.Type() != ZEndpointType::Progress;
    if (m_closed || nameless || !handler || !mailbox) {
        return false;
    }
    auto subscription = std::make_shared<Subscription>();
    subscription->owner = owner;
    subscription->node = node;
    subscription->mailbox = mailbox;
    subscription->handler = std::move(handler);

    const auto subscribers = m_subscribers.Lock();
    auto& current = (*subscribers)[{endpoint.Type(), endpoint.Name()}];
    auto next = current ? std::make_shared<Subscribers>(*current) : std::make_shared<Subscribers>();
    next->push_back(std::move(subscription));
    current = std::move(next);
    return true;
}

void ZNodeCommLocal::Unsubscribe(const void* owner) {
    Subscribers removed;
    {
        const auto subscribers = m_subscribers.Lock();
        for (auto entry = subscribers->begin(); entry != subscribers->end();) {
            auto next = std::make_shared<Subscribers>();
            for (const auto& subscription : *entry->second) {
                (subscription->owner == owner ? removed : *next).push_back(subscription);
            }
            if (next->empty()) {
                entry = subscribers->erase(entry);
            } else {
                entry->second = std::move(next);
                ++entry;
            }
        }
    }
    for (const auto& subscription : removed) {
        const std::lock_guard lock(subscription->mutex);
        subscription->active = false;
    }
}

std::shared_ptr<const ZNodeCommLocal::Subscribers> ZNodeCommLocal::Find(const ZCommEndpoint& endpoint) const {
    const auto subscribers = m_subscribers.Lock();
    const auto found = subscribers->find(endpoint);
    if (found == subscribers->end() || endpoint.Node().IsAny()) {
        return found == subscribers->end() ? nullptr : found->second;
    }
    auto ofNode = std::make_shared<Subscribers>();
    std::ranges::copy_if(*found->second, std::back_inserter(*ofNode),
                         [&](const auto& subscription) { return subscription->node == endpoint.Node(); });
    return ofNode->empty() ? nullptr : std::move(ofNode);
}

ZPublishOutcome ZNodeCommLocal::Publish(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                                        std::shared_ptr<ZMessage>* response, const ZPublishOptions& options) {
    if (m_closed) {
        return ZPublishOutcome::Closed;
    }
    const auto subscribers = Find(endpoint);
    if (!subscribers) {
        return ZPublishOutcome::NoSubscriber;
    }
    const auto timeout =
        options.timeout.count() > 0 ? options.timeout : std::chrono::milliseconds(m_requestTimeout.load());
    return response == nullptr ? Deliver(*subscribers, message, options, timeout)
                               : Request(*subscribers, message, *response, options, timeout);
}

ZPublishOutcome ZNodeCommLocal::Deliver(const Subscribers& subscribers, const std::shared_ptr<ZMessage>& message,
                                        const ZPublishOptions& options, std::chrono::milliseconds timeout) {
    std::optional<ZMailbox::Clock::time_point> deadline;  // for all of them together, from the first that has no room
    ZPublishOutcome outcome = ZPublishOutcome::NoSubscriber;
    const int priority = options.bUrgent ? 1 : message->GetDefaultPriority();
    const auto postPatiently = [&](ZMailbox& mailbox, ZMailbox::Mail mail) {
        deadline = deadline.value_or(ZMailbox::Clock::now() + timeout);
        return mailbox.Post(std::move(mail), *deadline, priority, &m_closed);
    };
    for (const auto& subscription : subscribers) {
        // A node never waits for room in its own queue: it is the one who would have to make it.
        const bool wait = options.bReliable && !subscription->mailbox->IsMine();
        ZMailbox::Mail mail(subscription, message);
        if (subscription->mailbox->TryPost(mail, priority) ||
            (wait && postPatiently(*subscription->mailbox, std::move(mail)))) {
            outcome = ZPublishOutcome::Delivered;
            continue;
        }
        Z_LOG(4, "The queue of %s is full or closed: a %s was not delivered", subscription->node.Name(),
              message->ClassName());
        if (outcome == ZPublishOutcome::NoSubscriber) {
            outcome = m_closed ? ZPublishOutcome::Closed : ZPublishOutcome::QueueFull;
        }
    }
    return outcome;
}

ZPublishOutcome ZNodeCommLocal::Request(const Subscribers& subscribers, const std::shared_ptr<ZMessage>& message,
                                        std::shared_ptr<ZMessage>& response, const ZPublishOptions& options,
                                        std::chrono::milliseconds timeout) {
    const auto deadline = ZMailbox::Clock::now() + timeout;
    if (std::all_of(subscribers.begin(), subscribers.end(), [](const auto& s) { return s->mailbox->IsMine(); })) {
        return ZPublishOutcome::Refused;
    }
    // Listed while this call waits: whatever ends it, an exception too.
    struct Listed {
        ZNodeCommLocal& bus;
        PendingRequest pending;
        std::uint64_t id = 0;
        explicit Listed(ZNodeCommLocal& owner) : bus(owner) {
            const auto requests = bus.m_pending.Lock();
            id = requests->nextId++;
            requests->byId.emplace(id, &pending);
        }
        ~Listed() { bus.m_pending.Lock()->byId.erase(id); }
        Listed(const Listed&) = delete;
        Listed& operator=(const Listed&) = delete;
    } listed(*this);
    PendingRequest& pending = listed.pending;
    message->SetResponseSource(std::make_shared<ZResponseSource>(weak_from_this(), listed.id));
    ZPublishOutcome outcome = Deliver(subscribers, message, options, timeout);

    auto requests = m_pending.Lock();
    if (outcome == ZPublishOutcome::Delivered) {
        requests.WaitUntil(pending.changed, deadline, [&](const auto&) { return pending.ended || m_closed; });
        response = std::move(pending.answer);
        if (!response) {
            outcome = m_closed ? ZPublishOutcome::Closed : ZPublishOutcome::NoAnswer;
        }
    }
    return outcome;
}

bool ZNodeCommLocal::Respond(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response) {
    const auto requests = m_pending.Lock();
    const auto found = requests->byId.find(source.Request());
    if (found == requests->byId.end() || found->second->ended) {
        return false;
    }
    found->second->answer = response;
    found->second->ended = true;
    found->second->changed.notify_one();
    return true;
}

bool ZNodeCommLocal::IsAwaited(const ZResponseSource& source) const {
    const auto requests = m_pending.Lock();
    const auto found = requests->byId.find(source.Request());
    return found != requests->byId.end() && !found->second->ended;
}

void ZNodeCommLocal::Close() {
    {
        const auto requests = m_pending.Lock();
        m_closed = true;
        for (const auto& [id, pending] : requests->byId) {
            pending->changed.notify_one();
        }
    }
    const auto endpoints = m_subscribers.Lock();
    for (const auto& [endpoint, subscribers] : *endpoints) {
        for (const auto& subscription : *subscribers) {
            subscription->mailbox->WakePosters();
        }
    }
}

void ZNodeCommLocal::SetRequestTimeout(std::chrono::milliseconds timeout) {
    m_requestTimeout = timeout.count();
}
