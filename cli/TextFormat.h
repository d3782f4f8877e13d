#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace arborctl {

/// `text` as it may be shown on a terminal: control characters (C0, DEL, C1), invisible direction marks and bytes that
/// are no UTF-8 come out as \n, \t, \r or \xNN, so that text from a device can't move the cursor or hide other text.
std::string Escaped(std::string_view text);

/// Number of columns that escaped text takes: its code points. (Double-width scripts are counted as one.)
std::size_t DisplayWidth(std::string_view escaped);

/// Escaped text cut to at most `columns` columns, never inside a code point; "..." shows the cut where there is room.
std::string Fitted(std::string_view escaped, std::size_t columns);

/// "512 B", "1.5 MiB".
std::string ByteCount(std::size_t bytes);

/// Standard base64 with padding.
std::string Base64(std::string_view data);

}  // namespace arborctl
