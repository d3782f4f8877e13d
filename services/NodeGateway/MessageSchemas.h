#pragma once

#include <boost/json/object.hpp>

namespace gateway {

/// JSON Schemas, by class name, of every message that travels under /v1, made from the fields that the messages
/// declare.
boost::json::object MessageSchemas();

}  // namespace gateway
