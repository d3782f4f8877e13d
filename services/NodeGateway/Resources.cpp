#include "Resources.h"

#include <algorithm>
#include <boost/json.hpp>

#include "EventStream.h"
#include "LogReport.h"
#include "OpenApi.h"
#include "OrderHistory.h"
#include "SetupReport.h"
#include "ZMessages/Messages.h"
#include "ZMessages/ZJSONCommStream.h"
#include "http/Problem.h"
#include "http/Target.h"

namespace gateway {

namespace {

constexpr std::string_view kRoot = "/v1/";
constexpr std::string_view kOneOperation = "/v1/operations/";
constexpr auto kStatusPatience = std::chrono::seconds(5);
constexpr auto kCountsTold = std::chrono::seconds(1);  // at most so often, however often somebody looks
constexpr auto kMetricsPatience = std::chrono::seconds(1);

HttpResponse WrongMethod(const char* allowed) {
    HttpResponse response = Problem(405, std::string("This resource takes ") + allowed);
    response.headers.emplace_back("Allow", allowed);
    return response;
}

/// Null when there is none.
const Keyword* KeywordOf(std::string_view path) {
    return path.starts_with(kRoot) ? FindKeyword(path.substr(kRoot.size())) : nullptr;
}

HttpResponse Json(std::string text) {
    HttpResponse response;
    response.body = std::move(text);
    return response;
}

}  // namespace

Resources::Resources(ZCommEnabledObject& bus, std::chrono::milliseconds patience, EventHub& events,
                     const RoleGroups& groups, Graph graph, PageFiles page, const std::string& network)
    : m_bus(bus),
      m_events(events),
      m_graph(std::move(graph)),
      m_roles(groups),
      m_jobs(bus),
      m_page(std::move(page)),
      m_requests({bus, m_roles, m_jobs, patience, m_graph.updatesFolder}),
      m_status(bus, events, m_jobs, m_roles, m_page.IsEmpty() ? std::string() : network) {}

Resources::Handler Resources::Find(std::string_view path) {
    static constexpr std::pair<std::string_view, Handler> kHandlers[] = {
        {"/v1/events", &Resources::Events},       {"/v1/status", &Resources::Status},
        {"/v1/setup", &Resources::Setup},         {"/v1/operations", &Resources::Operations},
        {"/v1/orders", &Resources::Orders},       {"/v1/log", &Resources::Log},
        {"/v1/metrics", &Resources::MetricsText}, {"/v1/openapi.json", &Resources::Description},
    };
    for (const auto& [known, handler] : kHandlers) {
        if (known == path) {
            return handler;
        }
    }
    return path.starts_with(kOneOperation) ? &Resources::Operation : nullptr;
}

std::size_t Resources::LargestBody(std::string_view path) const {
    const Keyword* const keyword = KeywordOf(path);
    return keyword == nullptr ? kUsualBody : keyword->largestBody;
}

void Resources::OnRefused(std::string_view path, int status) {
    if (const Keyword* const keyword = KeywordOf(path)) {
        m_metrics.CountRequest(keyword->name, status);
    }
}

HttpResponse Resources::Handle(const HttpRequest& request) {
    const bool reads = request.method == "GET" || request.method == "HEAD";
    if (const Handler handler = Find(request.path)) {
        if (!reads) {
            return WrongMethod("GET, HEAD");
        }
        auto refused = m_requests.WhyNotRead(request.path, *request.peer);
        return refused ? std::move(*refused) : (this->*handler)(request);
    }
    if (m_page.Has(request.path)) {
        return reads ? m_page.Answer(request) : WrongMethod("GET, HEAD");
    }
    const Keyword* const keyword = KeywordOf(request.path);
    if (keyword == nullptr) {
        return Problem(404, request.path.starts_with(kRoot) ? "There is no keyword or resource " + request.path
                                                            : "Everything is found under /v1/");
    }
    return request.method == "POST" ? Ask(*keyword, request) : WrongMethod("POST");
}

HttpResponse Resources::Ask(const Keyword& keyword, const HttpRequest& request) {
    HttpResponse response = m_requests.Handle(keyword, request.body, *request.peer);
    m_metrics.CountRequest(keyword.name, response.status);
    return response;
}

HttpResponse Resources::Events(const HttpRequest& request) {
    const auto log = NumberOf(request, "log", 0);
    if (!log || *log > 1) {
        return Problem(400, "\"log\" is 0 or 1", "log");
    }
    auto queue = m_events.Join(request.peer->account, *log == 1);
    if (!queue) {
        return Problem(503, "As many listeners as are allowed have joined");
    }
    HttpResponse response;
    response.contentType = "text/event-stream";
    response.headers.emplace_back("Cache-Control", "no-cache");
    response.stream = std::make_unique<EventStream>(m_events, std::move(queue));
    return response;
}

HttpResponse Resources::Status(const HttpRequest& request) {
    return Json(m_status.Document(*request.peer, kStatusPatience));
}

HttpResponse Resources::Setup(const HttpRequest&) {
    return Json(SetupReport(m_graph.file, m_graph.updatesFolder));
}

HttpResponse Resources::Operations(const HttpRequest& request) {
    return m_jobs.List(request, kStatusPatience);
}

HttpResponse Resources::Operation(const HttpRequest& request) {
    return m_jobs.One(request.path.substr(kOneOperation.size()), kStatusPatience);
}

HttpResponse Resources::Orders(const HttpRequest& request) {
    m_requests.Orders().Tell(kCountsTold);
    return OrderHistory(m_bus, request, kStatusPatience);
}

HttpResponse Resources::Log(const HttpRequest& request) {
    return LogReport(request);
}

HttpResponse Resources::MetricsText(const HttpRequest&) {
    Gauges gauges;
    gauges.eventListeners = m_events.Listeners();
    gauges.droppedListeners = m_events.Dropped();
    gauges.updateInProgress = m_status.UpdateInProgress(kMetricsPatience);
    gauges.trials = m_status.Trials(kMetricsPatience);
    InstallProgressMsg progress;
    ZJSONCommStream stream;
    if (stream.LoadText(m_events.LastProgress()) && progress.Deserialize(stream)) {
        gauges.progressPercent = progress.m_Percent;
    }
    HttpResponse response;
    response.contentType = "text/plain; version=0.0.4; charset=utf-8";
    response.body = m_metrics.Text(gauges);
    return response;
}

HttpResponse Resources::Description(const HttpRequest&) {
    return Json(OpenApiDocument(m_roles.AreNodesOpen()));
}

}  // namespace gateway
