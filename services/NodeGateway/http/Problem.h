#pragma once

#include "http/HttpMessage.h"

namespace gateway {

/// A problem document (application/problem+json). `field` names the key or parameter that is to blame; may be empty.
HttpResponse Problem(int status, std::string_view detail, std::string_view field = {});

}  // namespace gateway
