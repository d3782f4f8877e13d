#include "LogReport.h"

#include <algorithm>

#include "http/Problem.h"
#include "http/Target.h"

namespace json = boost::json;

namespace gateway {

namespace {

constexpr std::size_t kUsualLines = 200;
constexpr std::size_t kMostLines = 1000;
constexpr std::size_t kHighestLevel = 4;

}  // namespace

json::object LogEntry(const ZLogLine& line) {
    return {{"number", line.number},
            {"time", line.time},
            {"level", line.level},
            {"channel", line.Channel()},
            {"text", line.Text()}};
}

HttpResponse LogReport(const HttpRequest& request) {
    const auto count = NumberOf(request, "lines", kUsualLines);
    if (!count) {
        return Problem(400, "\"lines\" is a whole number", "lines");
    }
    const auto level = NumberOf(request, "level", 0);
    if (!level || *level > kHighestLevel) {
        return Problem(400, "\"level\" is 1 detail, 2 information, 3 warning or 4 error", "level");
    }
    const auto since = NumberOf(request, "since", 0);
    if (!since) {
        return Problem(400, "\"since\" is a number of milliseconds since 1970", "since");
    }
    json::array lines;
    json::array entries;
    for (const ZLogLine& line : ZLog::Instance().Recent(
             {std::min(*count, kMostLines), static_cast<int>(*level), static_cast<std::int64_t>(*since)})) {
        lines.emplace_back(line.line);
        entries.push_back(LogEntry(line));
    }
    HttpResponse response;
    response.body = json::serialize(json::object{{"lines", std::move(lines)}, {"entries", std::move(entries)}});
    return response;
}

}  // namespace gateway
