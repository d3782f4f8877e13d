#pragma once

#include <boost/json.hpp>

#include "ZShared/ZLog.h"
#include "http/HttpMessage.h"

namespace gateway {

/// A log line as a program reads it: number, time, level, channel and text.
boost::json::object LogEntry(const ZLogLine& line);

/// The newest lines that the request's query wants, or a problem.
HttpResponse LogReport(const HttpRequest& request);

}  // namespace gateway
