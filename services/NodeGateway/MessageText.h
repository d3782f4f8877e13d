#pragma once

#include <string>

class ZMessage;

namespace gateway {

/// The message as one line of JSON with its class name, in valid UTF-8: names of files may hold any byte, and one such
/// name must not make a whole document unreadable.
std::string MessageText(const ZMessage& message);

}  // namespace gateway
