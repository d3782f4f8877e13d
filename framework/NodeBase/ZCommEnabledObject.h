#pragma once

#include "NodeComm/ZNodeComm.h"
#include "ZCoreConfigs/ZCoreConfigParams.h"
#include "ZShared/ZLog.h"

/// An object that talks on the bus. Its operations may be called from any thread once it is attached.
class ZCommEnabledObject : public ZShared::ZFactoryObject {
    Z_CLASS(ZCommEnabledObject, ZFactoryObject)
public:
    using MessageFunction = std::function<bool(std::shared_ptr<ZMessage>&)>;

    explicit ZCommEnabledObject(const ZString& name) : m_name(name) {}
    ZCommEnabledObject(const ZCommEnabledObject&) = delete;
    ZCommEnabledObject& operator=(const ZCommEnabledObject&) = delete;

    const ZString& Name() const { return m_name; }

    /// Connects the object to a bus and to the queue that its handlers run from. Once, before anything else.
    void Attach(std::shared_ptr<ZNodeComm> comm, std::shared_ptr<ZMailbox> mailbox);

    /// Takes the settings: `message` is the graph's ZCoreConfigParams, `config` the object's own record, or null.
    virtual bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) = 0;

    /// The endpoint of that type and name: of any node when `scope` is 0, of this node alone when it is 1.
    ZCommEndpoint GetEndpoint(ZEndpointType type, const char* name, int scope) const;

    /// Registers a handler, which runs on the object's message thread. False on failure, which is logged.
    bool Subscribe(const ZCommEndpoint& endpoint, MessageFunction function);

    /// Publishes a message. With `responseOut` the call waits for the first answer and puts it there. `bReliable` waits
    /// for room in a full queue; `bUrgent` goes before what waits there. False when nothing took the message, when no
    /// answer came, or when `message` is no ZMessage, which is logged.
    template <typename T>
    bool Publish(const ZCommEndpoint& endpoint, std::shared_ptr<T> message,
                 std::shared_ptr<ZMessage>* responseOut = nullptr, bool bReliable = true, bool bUrgent = false) {
        const T* const given = message.get();
        const auto base = ZCAST(ZMessage, std::move(message));
        if (!base) {
            LogFailedCast("Publish", given, __LINE__);
            return false;
        }
        return PublishInternal(endpoint, base, responseOut, bReliable, bUrgent);
    }

    /// Answers a request. False, and a log line, when either is absent or no ZMessage.
    template <typename T>
    bool PublishResponse(const std::shared_ptr<ZMessage>& request, const std::shared_ptr<T>& response,
                         bool bReliable = true, bool bUrgent = false) {
        const auto base = ZCAST(ZMessage, response);
        if (!ZCAST(ZMessage, request) || !base) {
            LogAssertion("PublishResponse", __LINE__);
            return false;
        }
        return PublishResponseInternal(ZResponseSource(*request), base, bReliable, bUrgent);
    }

    /// Answers a request whose source was taken earlier.
    template <typename T>
    bool PublishResponseSource(const ZResponseSource& source, const std::shared_ptr<T>& response, bool bReliable = true,
                               bool bUrgent = false) {
        const auto base = ZCAST(ZMessage, response);
        if (!base) {
            LogAssertion("PublishResponseSource", __LINE__);
            return false;
        }
        return PublishResponseInternal(source, base, bReliable, bUrgent);
    }

    /// As Publish, and says how it went.
    ZPublishOutcome PublishWithOutcome(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                                       std::shared_ptr<ZMessage>* responseOut, const ZPublishOptions& options);

protected:
    virtual bool PublishInternal(const ZCommEndpoint& endpoint, const std::shared_ptr<ZMessage>& message,
                                 std::shared_ptr<ZMessage>* responseOut, bool bReliable, bool bUrgent) = 0;
    virtual bool PublishResponseInternal(const ZResponseSource& source, const std::shared_ptr<ZMessage>& response,
                                         bool bReliable, bool bUrgent) = 0;
    /// Whether a received message may reach its handler.
    virtual bool OnFilterMessage(const std::shared_ptr<ZMessage>& message) = 0;

    const std::shared_ptr<ZNodeComm>& Comm() const { return m_comm; }
    const std::shared_ptr<ZMailbox>& Mailbox() const { return m_mailbox; }
    void Unsubscribe();
    ZLogger Log() const { return ZLogger(m_logName.c_str(), m_logLevel); }

    ZString m_logName;            ///< the channel of the object's log lines
    std::int32_t m_logLevel = 2;  ///< its threshold; 0 silences it

private:
    void LogFailedCast(const char* function, const ZShared::ZFactoryObject* object, int line) const;
    void LogAssertion(const char* function, int line) const;

    ZString m_name;
    std::shared_ptr<ZNodeComm> m_comm;
    std::shared_ptr<ZMailbox> m_mailbox;
};
