#pragma once

#include <chrono>

#include "http/HttpMessage.h"

class ZCommEnabledObject;

namespace gateway {

/// The orders that the request's query chooses, from the node that keeps them, or a problem.
HttpResponse OrderHistory(ZCommEnabledObject& bus, const HttpRequest& request, std::chrono::milliseconds patience);

}  // namespace gateway
