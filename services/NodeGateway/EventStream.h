#pragma once

#include "EventHub.h"
#include "HttpMessage.h"

namespace gateway {

/// Sends a listener its events as server-sent events until it goes, is too slow, or the server stops. Sleeps between
/// events; now and then a comment shows those in between that the connection lives.
void SendEvents(EventHub& hub, EventQueue& queue, HttpStream& stream);

}  // namespace gateway
