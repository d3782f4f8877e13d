#pragma once

#include "http/HttpMessage.h"

namespace gateway {

/// Takes a request's address apart: sets the path and the query, with what is written as %XX decoded. What is not two
/// hexadecimal digits stays as it is.
void ReadTarget(std::string_view target, HttpRequest& request);

}  // namespace gateway
