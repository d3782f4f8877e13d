#pragma once

#include <map>

#include "NodeComm/ZNodeLink.h"
#include "NodeLink/LinkKeys.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZGuarded.h"

class LinkLoop;

/// The link over the protocol of ZeroMQ, encrypted, each side known to the other by its pinned key (CURVE).
class ZNodeCommZmq : public ZNodeLink, public std::enable_shared_from_this<ZNodeCommZmq> {
    Z_CLASS(ZNodeCommZmq, ZNodeLink)
public:
    ZNodeCommZmq();
    ~ZNodeCommZmq() override;
    ZNodeCommZmq(const ZNodeCommZmq&) = delete;
    ZNodeCommZmq& operator=(const ZNodeCommZmq&) = delete;

    bool IsAddress(const std::string& text) const override;
    bool IsKey(const std::string& text) const override;
    ZResult<void> LoadKeys(const std::filesystem::path& file) override;
    std::string PublicKey() const override { return m_keys.publicKey; }
    ZResult<void> Start(const ZLinkSettings& settings, std::shared_ptr<ZNodeComm> local,
                        ZLinkObserver& observer) override;
    void SetPins(std::vector<ZLinkPin> pins) override;
    void Send(const std::string& key, const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
              std::chrono::milliseconds timeout, Completion done) override;

    bool Subscribe(const void* owner, const ZNodeUID& node, const std::shared_ptr<ZMailbox>& mailbox,
                   const ZCommEndpoint& endpoint, Handler handler) override;
    void Unsubscribe(const void* owner) override;
    ZPublishOutcome Publish(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                            std::shared_ptr<ZMessage>* response, const ZPublishOptions& options) override;
    /// Answers a request that came from another device.
    bool Respond(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response) override;
    bool IsAwaited(const ZResponseSource& source) const override;
    /// Ends the link. Not for the link's own thread. The local bus is not closed.
    void Close() override;
    void SetRequestTimeout(std::chrono::milliseconds timeout) override;

private:
    class Receiver;
    /// A request that went to a device and waits for its answer.
    struct Sent {
        std::string key;
        ZClock::time_point deadline;
        Completion done;
    };
    /// A request that came from a device and waits for this one's answer.
    struct Received {
        std::string key;
        std::uint64_t number;  ///< the device's own
        ZClock::time_point deadline;
    };

    struct State {
        std::set<std::string> connected;
        std::map<std::uint64_t, Sent> sent;
        std::map<std::uint64_t, Received> received;
        std::uint64_t nextNumber = 1;
        std::map<std::string, std::string> names;  // of the pinned devices, by key
    };

    bool IsConnected(const std::string& key) const;
    void Complete(std::uint64_t number, ZPublishOutcome outcome, const std::shared_ptr<ZMessage>& message);
    void Fail(std::uint64_t number, ZPublishOutcome outcome, const char* reason);

    LinkKeyPair m_keys;
    std::shared_ptr<ZNodeComm> m_local;
    std::set<std::string> m_exports;
    std::unique_ptr<Receiver> m_receiver;
    std::unique_ptr<LinkLoop> m_loop;
    std::atomic<bool> m_closed{false};
    std::atomic<std::chrono::milliseconds::rep> m_requestTimeout{30'000};
    ZGuarded<State> m_state;  // nothing is called while it is held
};
