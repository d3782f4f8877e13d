#pragma once

#include <string>

class ZMessage;

namespace gateway {

/// The text with every byte that is not part of well-formed UTF-8 replaced by U+FFFD. Names of files may hold any byte,
/// and one such name must not make a whole document unreadable.
std::string ValidUtf8(std::string text);

/// The message as one line of JSON with its class name.
std::string MessageText(const ZMessage& message);

}  // namespace gateway
