#pragma once

#include <boost/system/result.hpp>
#include <cstdint>
#include <string>
#include <string_view>

namespace arborctl {

/// What keeps others out of a port that hands requests over to the device.
struct Doorkeeping {
    std::uint16_t port = 0;   ///< its own: a request names it as its host
    std::string_view secret;  ///< what everything but the page's files takes
};

/// Why a request is not handed over.
struct Refusal {
    int status = 400;
    std::string reason;
};

/// The head of a request, from its first line to the empty one, as the device is to get it: what is for this port only
/// is gone, and the connection ends with the answer. A refusal for what must not get through. A pure function.
boost::system::result<std::string, Refusal> ForwardedHead(std::string_view head, const Doorkeeping& door);

/// Whether the request is for the page itself, which a person looks at.
bool AsksForPage(std::string_view head);

}  // namespace arborctl
