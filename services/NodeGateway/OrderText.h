#pragma once

#include <memory>
#include <string_view>

#include "ZMessages/OrderMessages.h"
#include "http/Peer.h"

// What is written down of an order.

namespace gateway {

/// An order that the peer gives now, with its process as it is now, or the address of a token's holder; what becomes of
/// it is not known yet.
std::shared_ptr<ZOrderMsg> OrderOf(std::string_view keyword, const Peer& peer);

/// What the message is about, short: its texts, and the names of what it says yes to ("3.046 reboot").
ZString SubjectOf(ZMessage& message);

/// Why an answer says no; empty when it does not.
ZString WhyUnsuccessful(const std::shared_ptr<ZMessage>& answer);

}  // namespace gateway
