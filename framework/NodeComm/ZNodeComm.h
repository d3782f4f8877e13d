#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "NodeComm/ZCommEndpoint.h"
#include "NodeComm/ZMailbox.h"
#include "ZMessages/ZMessage.h"

class ZNodeComm;

/// Where the answer to one request must go: the identity of the waiting publication. Answering twice, or after the
/// requester gave up, has no effect.
class ZResponseSource {
public:
    ZResponseSource() = default;
    ZResponseSource(std::weak_ptr<ZNodeComm> comm, std::uint64_t request)
        : m_comm(std::move(comm)), m_request(request) {}
    /// The response source of a message at this moment; one that nobody waits behind when it was not a request.
    explicit ZResponseSource(const ZMessage& message);

    std::shared_ptr<ZNodeComm> Comm() const { return m_comm.lock(); }
    std::uint64_t Request() const { return m_request; }
    /// Whether nobody waits any more for the answer to something that was asked: what it asked for need not be begun.
    bool IsAbandoned() const;

private:
    std::weak_ptr<ZNodeComm> m_comm;
    std::uint64_t m_request = 0;
};

/// How a publication treats its receivers.
struct ZPublishOptions {
    bool bReliable = true;  ///< wait for room in a receiver's full queue, instead of failing at once
    bool bUrgent = false;   ///< go before what already waits there
    /// How long to wait for room and, for a request, for the answer; 0: the bus's configured time.
    std::chrono::milliseconds timeout{0};
};

/// Why a request ended as it did.
enum class ZPublishOutcome {
    Delivered,     ///< handed to at least one subscriber (and answered, for a request)
    NoSubscriber,  ///< nothing is subscribed there
    Refused,       ///< could never be answered: the caller's own thread would have to answer
    QueueFull,     ///< no receiver had room in time
    NoAnswer,      ///< the time ran out
    Closed,        ///< the bus is shutting down
};

/// A message bus as nodes see it; each transport is a subclass. All functions are thread-safe.
class ZNodeComm : public ZShared::ZFactoryObject {
    Z_CLASS(ZNodeComm, ZFactoryObject)
public:
    using Handler = std::function<bool(std::shared_ptr<ZMessage>&)>;

    /// Delivers what is published on `endpoint` to `handler`, run from `mailbox`. `owner` is what Unsubscribe takes.
    /// False when the endpoint has no name and is not a progress endpoint, or when the bus is closed.
    virtual bool Subscribe(const void* owner, const ZNodeUID& node, const std::shared_ptr<ZMailbox>& mailbox,
                           const ZCommEndpoint& endpoint, Handler handler) = 0;
    /// Ends the owner's subscriptions. None of its handlers runs once this has returned, but for one that calls it.
    virtual void Unsubscribe(const void* owner) = 0;

    /// Hands the message to every subscriber, in the order of subscription. With `response`, waits for the first
    /// answer.
    virtual ZPublishOutcome Publish(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                                    std::shared_ptr<ZMessage>* response, const ZPublishOptions& options) = 0;

    /// Gives the waiting requester its answer. False when nobody waits any more.
    virtual bool Respond(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response) = 0;

    /// Whether somebody still waits for that answer.
    virtual bool IsAwaited(const ZResponseSource& source) const = 0;

    /// Ends every wait, for answers and for room in queues, and refuses what comes later.
    virtual void Close() = 0;

    virtual void SetRequestTimeout(std::chrono::milliseconds timeout) = 0;

    /// A deep copy; null when the class can't be copied or created.
    static std::shared_ptr<ZMessage> CloneMessage(const std::shared_ptr<ZMessage>& message);
};
