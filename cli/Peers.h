#pragma once

#include <boost/json.hpp>
#include <string>

#include "Result.h"
#include "Session.h"

/// The other devices that a device knows, as the documents that it gives of them (ZPeerMsg).
namespace arborctl {

/// What the device knows of the one with this serial number, and model unless that is empty; rather of one that is
/// connected. Null when it knows none, or has no link to others.
Result<boost::json::value> FindPeer(Session& session, const std::string& serialNumber, const std::string& model);

/// "connected", "away" or "never seen".
std::string PeerState(const boost::json::value& peer);

/// What a person calls it: "palm (QMD-4711)".
std::string PeerTitle(const boost::json::value& peer);

}  // namespace arborctl
