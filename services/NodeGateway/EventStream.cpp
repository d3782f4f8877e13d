#include "EventStream.h"

#include "http/GatewayLog.h"

namespace gateway {

bool EventStream::Take(Pieces& pieces) {
    const bool goesOn = GoesOn();
    if (goesOn) {
        m_queue->Take(pieces);
    }
    return goesOn;
}

bool EventStream::GoesOn() {
    const bool overrun = m_queue->IsOverrun();
    if (overrun) {
        Drop("more events waited for it than may");
    }
    return !overrun;
}

void EventStream::Drop(const char* reason) {
    m_hub.CountDropped();
    Z_LOG(3, "Dropped a listener of events: %s", reason);
}

}  // namespace gateway
