#pragma once

#include <atomic>
#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "NodeComm/ZNodeComm.h"
#include "ZShared/ZGuarded.h"

/// The bus within one process: messages travel as shared pointers, without a copy.
class ZNodeCommLocal : public ZNodeComm, public std::enable_shared_from_this<ZNodeCommLocal> {
    Z_CLASS(ZNodeCommLocal, ZNodeComm)
public:
    ZNodeCommLocal();
    ~ZNodeCommLocal() override;
    ZNodeCommLocal(const ZNodeCommLocal&) = delete;
    ZNodeCommLocal& operator=(const ZNodeCommLocal&) = delete;

    bool Subscribe(const void* owner, const ZNodeUID& node, const std::shared_ptr<ZMailbox>& mailbox,
                   const ZCommEndpoint& endpoint, Handler handler) override;
    void Unsubscribe(const void* owner) override;
    ZPublishOutcome Publish(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                            std::shared_ptr<ZMessage>* response, const ZPublishOptions& options) override;
    bool Respond(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response) override;
    bool IsAwaited(const ZResponseSource& source) const override;
    void Close() override;
    void SetRequestTimeout(std::chrono::milliseconds timeout) override;

private:
    struct Subscription;
    struct PendingRequest;
    /// An endpoint's type and name.
    using Key = std::pair<ZEndpointType, ZString>;
    /// Orders keys, and lets an endpoint be looked up as it stands.
    struct KeyOrder {
        using is_transparent = void;
        using View = std::pair<ZEndpointType, std::string_view>;
        static View Of(const Key& key) { return {key.first, key.second}; }
        static View Of(const ZCommEndpoint& endpoint) { return {endpoint.Type(), endpoint.Name()}; }
        bool operator()(const auto& left, const auto& right) const { return Of(left) < Of(right); }
    };
    using Subscribers = std::vector<std::shared_ptr<Subscription>>;
    struct PendingRequests {
        std::unordered_map<std::uint64_t, PendingRequest*> byId;
        std::uint64_t nextId = 1;
    };

    /// Those that a publication there reaches; null when there are none.
    std::shared_ptr<const Subscribers> Find(const ZCommEndpoint& endpoint) const;
    ZPublishOutcome Deliver(const Subscribers& subscribers, const std::shared_ptr<ZMessage>& message,
                            const ZPublishOptions& options, std::chrono::milliseconds timeout);
    ZPublishOutcome Request(const Subscribers& subscribers, const std::shared_ptr<ZMessage>& message,
                            std::shared_ptr<ZMessage>& response, const ZPublishOptions& options,
                            std::chrono::milliseconds timeout);

    ZGuarded<std::map<Key, std::shared_ptr<const Subscribers>, KeyOrder>> m_subscribers;
    ZGuarded<PendingRequests> m_pending;
    std::atomic<bool> m_closed{false};
    std::atomic<std::chrono::milliseconds::rep> m_requestTimeout{30'000};
};
