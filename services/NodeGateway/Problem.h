#pragma once

#include "HttpMessage.h"

namespace gateway {

/// The standard phrase of a status, as "Not Found".
std::string_view StatusPhrase(int status);

/// A problem document (application/problem+json). `field` names the key or parameter that is to blame; may be empty.
HttpResponse Problem(int status, std::string_view detail, std::string_view field = {});

}  // namespace gateway
