#include "EventStream.h"

#include "GatewayLog.h"

namespace gateway {

namespace {

constexpr auto kKeepAliveAfter = std::chrono::seconds(15);
constexpr const char* kKeepAlive = ": keep-alive\n\n";

/// Says so when the listener is still there: it must ask again, and the log tells why it lost its stream.
void Drop(EventHub& hub, HttpStream& stream, const char* reason) {
    if (stream.Wait(-1, std::chrono::milliseconds(0)) != Wake::Ended) {
        hub.CountDropped();
        Z_LOG(3, "Dropped a listener of events: %s", reason);
    }
}

}  // namespace

void SendEvents(EventHub& hub, EventQueue& queue, HttpStream& stream) {
    while (true) {
        std::string text;
        if (!queue.Take(text)) {
            Drop(hub, stream, "more events waited for it than may");
            return;
        }
        if (text.empty()) {
            const Wake wake = stream.Wait(queue.Descriptor(), kKeepAliveAfter);
            if (wake == Wake::Ended) {
                return;
            }
            if (wake == Wake::Ready) {
                continue;
            }
            text = kKeepAlive;
        }
        if (!stream.Write(text)) {
            Drop(hub, stream, "it took them too slowly");
            return;
        }
    }
}

}  // namespace gateway
