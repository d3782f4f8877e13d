#pragma once

#include "EventHub.h"
#include "HttpMessage.h"
#include "Metrics.h"
#include "Requests.h"
#include "StatusReport.h"

namespace gateway {

/// Everything that is offered under /v1: which method each path takes, and who answers. Thread-safe.
class Resources {
public:
    Resources(ZCommEnabledObject& bus, std::chrono::milliseconds patience, EventHub& events);

    HttpResponse Handle(const HttpRequest& request);

private:
    using Handler = HttpResponse (Resources::*)(const HttpRequest&);
    static Handler Find(std::string_view path);
    HttpResponse Ask(const Keyword& keyword, const HttpRequest& request);
    HttpResponse Events(const HttpRequest& request);
    HttpResponse Status(const HttpRequest& request);
    HttpResponse Log(const HttpRequest& request);
    HttpResponse MetricsText(const HttpRequest& request);
    HttpResponse Description(const HttpRequest& request);

    EventHub& m_events;
    Requests m_requests;
    StatusReport m_status;
    Metrics m_metrics;
};

}  // namespace gateway
