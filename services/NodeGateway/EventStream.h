#pragma once

#include "EventHub.h"
#include "http/HttpMessage.h"

namespace gateway {

/// A listener's events as server-sent events. Ends when more wait for it than may.
class EventStream final : public HttpStream {
public:
    EventStream(EventHub& hub, std::shared_ptr<EventQueue> queue) : m_hub(hub), m_queue(std::move(queue)) {}

    bool Take(Pieces& pieces) override;
    bool GoesOn() override;
    void OnTooSlow() override { Drop("it took them too slowly"); }
    /// A comment, which shows those in between that the connection lives.
    std::string_view KeepAlive() const override { return ": keep-alive\n\n"; }

private:
    /// The listener must ask again: the log tells why it lost its stream.
    void Drop(const char* reason);

    EventHub& m_hub;
    const std::shared_ptr<EventQueue> m_queue;
};

}  // namespace gateway
