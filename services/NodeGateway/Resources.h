#pragma once

#include "EventHub.h"
#include "JobHistory.h"
#include "Metrics.h"
#include "PageFiles.h"
#include "Requests.h"
#include "StatusReport.h"
#include "http/HttpMessage.h"

namespace gateway {

/// Everything that is offered under /v1: which method each path takes, and who answers. Thread-safe.
class Resources final : public HttpHandler {
public:
    /// Of the graph: its file and its updates folder, which may be empty.
    struct Graph {
        std::string file;
        std::string updatesFolder;
    };
    /// `network` is the address by which the network reaches it; empty: none.
    Resources(ZCommEnabledObject& bus, std::chrono::milliseconds patience, EventHub& events, const RoleGroups& groups,
              Graph graph, PageFiles page, const std::string& network);

    std::size_t LargestBody(std::string_view path) const override;
    bool IsOpen(std::string_view path) const override { return m_page.Has(path); }
    HttpResponse Handle(const HttpRequest& request) override;
    void OnRefused(std::string_view path, int status) override;
    const Roles& Who() const { return m_roles; }
    /// Has what was only counted of people's orders written down.
    void TellOrders() { m_requests.Orders().Tell({}); }
    /// A job has changed.
    void OnOperation(const ZOperationMsg& job) { m_metrics.CountOperation(job); }

private:
    using Handler = HttpResponse (Resources::*)(const HttpRequest&);
    static Handler Find(std::string_view path);
    HttpResponse Ask(const Keyword& keyword, const HttpRequest& request);
    HttpResponse Events(const HttpRequest& request);
    HttpResponse Status(const HttpRequest& request);
    HttpResponse Setup(const HttpRequest& request);
    HttpResponse Operations(const HttpRequest& request);
    HttpResponse Operation(const HttpRequest& request);
    HttpResponse Orders(const HttpRequest& request);
    HttpResponse Log(const HttpRequest& request);
    HttpResponse MetricsText(const HttpRequest& request);
    HttpResponse Description(const HttpRequest& request);

    ZCommEnabledObject& m_bus;
    EventHub& m_events;
    const Graph m_graph;
    const Roles m_roles;
    const JobHistory m_jobs;
    const PageFiles m_page;
    Requests m_requests;
    StatusReport m_status;
    Metrics m_metrics;
};

}  // namespace gateway
