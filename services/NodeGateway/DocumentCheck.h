#pragma once

#include <string_view>

#include "ZShared/ZError.h"

namespace gateway {

/// Whether a text from outside may be made a message of: one JSON document that is not large as a document, however
/// long its texts are. Itself it takes hardly any memory.
ZResult<void> CheckDocument(std::string_view text);

}  // namespace gateway
