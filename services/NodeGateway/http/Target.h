#pragma once

#include <optional>

#include "http/HttpMessage.h"

namespace gateway {

/// Takes a request's address apart: sets the path and the query, with what is written as %XX decoded. What is not two
/// hexadecimal digits stays as it is.
void ReadTarget(std::string_view target, HttpRequest& request);

/// The parameter's value; empty when it is absent.
std::string TextOf(const HttpRequest& request, const char* name);
/// The parameter's value; `otherwise` when it is absent, none when it is not a whole number up to 2^63 - 1.
std::optional<std::size_t> NumberOf(const HttpRequest& request, const char* name, std::size_t otherwise);

}  // namespace gateway
