#pragma once

#include <string>
#include <string_view>

namespace text {

/// `bytes` as they may be shown in one line, of a terminal or a log: control characters (C0, DEL, C1), line breaks,
/// invisible direction marks and bytes that are no UTF-8 come out as \n, \t, \r or \xNN, so that text from outside
/// can't move the cursor, hide other text or pass for a line of its own.
std::string Escaped(std::string_view bytes);

}  // namespace text
