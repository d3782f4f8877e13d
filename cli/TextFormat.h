#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "text/Escape.h"

namespace arborctl {

using text::Escaped;

/// Number of columns that escaped text takes: its code points. (Double-width scripts are counted as one.)
std::size_t DisplayWidth(std::string_view escaped);

/// Escaped text cut to at most `columns` columns, never inside a code point; "..." shows the cut where there is room.
std::string Fitted(std::string_view escaped, std::size_t columns);

/// "512 B", "1.5 MiB".
std::string ByteCount(std::size_t bytes);

}  // namespace arborctl
