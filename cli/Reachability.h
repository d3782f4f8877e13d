#pragma once

#include <string>

namespace arborctl {

/// Why no connection could be had at the socket, as a sentence that says what to do about it. Tries once more to find
/// out: libraries only say that it failed.
std::string WhyNotConnected(const std::string& socketPath);

}  // namespace arborctl
