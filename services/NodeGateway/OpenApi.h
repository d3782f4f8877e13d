#pragma once

#include <string>

namespace gateway {

/// The OpenAPI 3.1 description of everything under /v1, made from the table of keywords and the messages' own fields.
const std::string& OpenApiDocument(bool withNodes);

}  // namespace gateway
