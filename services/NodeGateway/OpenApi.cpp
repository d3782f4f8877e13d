#include "OpenApi.h"

#include <boost/json.hpp>

#include "EventTable.h"
#include "KeywordTable.h"
#include "MessageSchemas.h"

namespace json = boost::json;

namespace gateway {

namespace {

json::object Reference(std::string_view kind, std::string_view name) {
    return {{"$ref", "#/components/" + std::string(kind) + '/' + std::string(name)}};
}

json::object Content(std::string_view type, json::object schema) {
    return {{type, json::object{{"schema", std::move(schema)}}}};
}

json::object Answer(std::string_view text, std::string_view type, json::object schema) {
    return {{"description", text}, {"content", Content(type, std::move(schema))}};
}

void AddProblems(json::object& responses, std::initializer_list<int> statuses) {
    for (const int status : statuses) {
        responses[std::to_string(status)] = Reference("responses", "Problem");
    }
}

json::object RequestSchema(const Keyword& keyword) {
    const auto classes = keyword.RequestClasses();
    if (classes.size() == 1) {
        return Reference("schemas", classes.front());
    }
    json::array choices;
    for (const char* name : classes) {
        choices.push_back(Reference("schemas", name));
    }
    return {{"oneOf", std::move(choices)}, {"required", json::array{"className"}}};
}

json::object KeywordPath(const Keyword& keyword) {
    json::object responses;
    const json::object job{
        {"type", "object"},
        {"properties", {{"operationId", {{"type", "string"}, {"description", "The job that was begun, if one was"}}}}}};
    if (!keyword.IsNotification()) {
        const json::object answer = Reference("schemas", keyword.answer);
        responses["200"] = Answer("The answer", "application/json",
                                  keyword.beginsJob ? json::object{{"allOf", json::array{answer, job}}} : answer);
    } else if (keyword.beginsJob) {
        responses["202"] = Answer("Handed to all who listen", "application/json", job);
    } else {
        responses["202"] = json::object{{"description", "Handed to all who listen"}};
    }
    AddProblems(responses, {400, 403, 413, 503, 504});
    const bool required = keyword.RequestClasses().size() > 1;
    return {{"post", json::object{{"operationId", keyword.name},
                                  {"summary", keyword.summary},
                                  {"x-role", RoleName(keyword.role)},
                                  {"requestBody",
                                   json::object{{"required", required},
                                                {"content", Content("application/json", RequestSchema(keyword))}}},
                                  {"responses", std::move(responses)}}}};
}

json::object QueryParameter(std::string_view name, std::string_view text, json::object schema) {
    return {{"name", name}, {"in", "query"}, {"description", text}, {"schema", std::move(schema)}};
}

json::object Reading(std::string_view id, std::string_view summary, json::object answer, json::array parameters = {},
                     std::initializer_list<int> problems = {}) {
    json::object responses{{"200", std::move(answer)}};
    AddProblems(responses, problems);
    AddProblems(responses, {403, 503});
    return {{"get", json::object{{"operationId", id},
                                 {"summary", summary},
                                 {"parameters", std::move(parameters)},
                                 {"responses", std::move(responses)}}}};
}

json::object Nullable(const char* type) {
    return {{"type", json::array{type, "null"}}};
}

/// `refused`: with why and when.
json::object PackagesSchema(bool refused) {
    json::object properties;
    for (const char* key : {"version", "source", "relation", "board", "file", "signer"}) {
        properties[key] = Nullable("string");
    }
    properties["size"] = Nullable("integer");
    if (refused) {
        properties["reason"] = {{"type", "string"}};
        properties["errorCode"] = {{"type", "string"}};
        properties["checkedAt"] = {{"type", "integer"}};
    }
    json::object packages = Nullable("array");
    packages["items"] = {{"type", "object"}, {"properties", std::move(properties)}};
    return packages;
}

json::object YouSchema() {
    return {{"type", "object"},
            {"description", "Who asks, as jobs name it, and the highest role that this one has"},
            {"properties",
             {{"name", {{"type", "string"}}},
              {"role", {{"type", "string"}, {"enum", json::array{"look", "operate", "administer"}}}}}}};
}

json::object StatusSchema() {
    json::object device = Nullable("object");
    device["properties"] = {
        {"model", {{"type", "string"}}}, {"serialNumber", {{"type", "string"}}}, {"board", {{"type", "string"}}}};
    json::object jobs = Nullable("array");
    jobs["items"] = Reference("schemas", "ZOperationMsg");
    json::object last{{"anyOf", json::array{Reference("schemas", "ZOperationMsg"), json::object{{"type", "null"}}}},
                      {"description", "The newest install on this device that has ended"}};
    json::object drives = Nullable("array");
    drives["items"] = {{"type", "string"}};
    const json::object progress{
        {"anyOf", json::array{Reference("schemas", "InstallProgressMsg"), json::object{{"type", "null"}}}}};
    return {
        {"type", "object"},
        {"description", "A part that nobody tells is null"},
        {"properties",
         json::object{{"version", Nullable("string")},
                      {"hash", Nullable("string")},
                      {"installedVersion", Nullable("string")},
                      {"updateInProgress", Nullable("boolean")},
                      {"device", std::move(device)},
                      {"updates", PackagesSchema(false)},
                      {"progress", progress},
                      {"drives", std::move(drives)},
                      {"operations", std::move(jobs)},
                      {"runningSlot", Nullable("string")},
                      {"nextSlot", Nullable("string")},
                      {"nextVersion", Nullable("string")},
                      {"archive", PackagesSchema(false)},
                      {"refused", PackagesSchema(true)},
                      {"updatesFree", Nullable("integer")},
                      {"archiveFree", Nullable("integer")},
                      {"trustedSigners", Nullable("string")},
                      {"trustProblem", Nullable("string")},
                      {"historyProblem", Nullable("string")},
                      {"lastInstall", std::move(last)},
                      {"you", YouSchema()},
                      {"bootId", {{"type", "string"}}},
                      {"pageAddress", Nullable("string")},
                      {"now", {{"type", "integer"}, {"description", "The device's time, in milliseconds since 1970"}}},
                      {"developerMode", {{"type", "boolean"}}}}}};
}

json::object SetupSchema() {
    const json::object text{{"type", "string"}};
    return {{"type", "object"},
            {"properties",
             {{"version", text},
              {"graphFile", text},
              {"updatesFolder", text},
              {"user", {{"type", "string"}, {"description", "Whose rights the host has"}}},
              {"userId", {{"type", "integer"}}},
              {"passesModes", {{"type", "boolean"}, {"description", "The host may read and write any file"}}},
              {"mountNamespace", text},
              {"mounts",
               {{"type", "array"}, {"items", text}, {"description", "As the host sees them: lines of mountinfo"}}}}}};
}

json::object ProblemSchema() {
    return {{"type", "object"},
            {"required", json::array{"title", "status", "detail"}},
            {"properties",
             {{"title", {{"type", "string"}}},
              {"status", {{"type", "integer"}}},
              {"detail", {{"type", "string"}}},
              {"field", {{"type", "string"}, {"description", "The key that is to blame"}}}}}};
}

std::string EventsText() {
    std::string text = "Server-sent events: ";
    std::string repeated;
    for (const EventKind& kind : Events()) {
        const std::string meaning = *kind.meaning == '\0' ? "" : std::string(": ") + kind.meaning;
        text += '"' + std::string(kind.name) + "\" (" + kind.className + meaning + "), ";
        if (kind.bRepeated) {
            repeated += (repeated.empty() ? "" : ", ") + std::string(kind.name);
        }
    }
    return text +
           "and, with log=1, \"log\" ({\"line\": \"...\"} and the keys of an entry of /v1/log). The last of each of "
           "these come first: " +
           repeated + ". A client that takes them too slowly is dropped.";
}

/// The parameters, and those by which pages are asked for.
json::array WithPages(json::array parameters) {
    parameters.push_back(QueryParameter("limit", "How many on a page",
                                        {{"type", "integer"}, {"minimum", 0}, {"maximum", 1000}, {"default", 100}}));
    parameters.push_back(QueryParameter("before", "\"next\" of the page before", {{"type", "string"}}));
    return parameters;
}

json::array JobParameters() {
    const json::object text{{"type", "string"}};
    return WithPages({QueryParameter("kind", "Only those, such as install; upper or lower case", text),
                      QueryParameter("state", "Only those, such as failed, or open: queued and running", text),
                      QueryParameter("node", "Only those that this node does", text),
                      QueryParameter("since", "Begun then or later, in milliseconds since 1970",
                                     {{"type", "integer"}, {"minimum", 0}, {"default", 0}})});
}

json::array OrderParameters() {
    return WithPages({QueryParameter("user", "Only those of this user: a name or a number", {{"type", "string"}}),
                      QueryParameter("result", "Only those that were accepted, or refused",
                                     {{"type", "string"}, {"enum", json::array{"accepted", "refused"}}}),
                      QueryParameter("since", "Given then or later, in milliseconds since 1970",
                                     {{"type", "integer"}, {"minimum", 0}, {"default", 0}})});
}

void AddReadings(json::object& paths) {
    const json::object text{{"type", "string"}};
    const json::object number{{"type", "integer"}};
    const json::object entry{{"type", "object"},
                             {"properties",
                              {{"number", number},
                               {"time", {{"type", "integer"}, {"description", "Milliseconds since 1970"}}},
                               {"level", number},
                               {"channel", text},
                               {"text", text}}}};
    const json::object lines{
        {"type", "object"},
        {"properties",
         {{"lines", {{"type", "array"}, {"items", text}}}, {"entries", {{"type", "array"}, {"items", entry}}}}}};
    paths["/v1/events"] = Reading(
        "events", "What happens, as it happens", Answer(EventsText(), "text/event-stream", text),
        {QueryParameter("log", "1: log lines too", {{"type", "integer"}, {"minimum", 0}, {"maximum", 1}})}, {400, 503});
    paths["/v1/status"] = Reading("status", "The device's state",
                                  Answer("The state", "application/json", Reference("schemas", "Status")));
    paths["/v1/setup"] = Reading("setup", "How the host runs, for a check of the set-up",
                                 Answer("The set-up", "application/json", Reference("schemas", "Setup")));
    paths["/v1/operations"] =
        Reading("operations", "The jobs, newest first",
                Answer("A page of them", "application/json", Reference("schemas", "ZOperationsMsg")), JobParameters(),
                {400, 504});
    const json::object orders = Answer("A page of them", "application/json", Reference("schemas", "ZOrdersMsg"));
    paths["/v1/orders"] = Reading("orders", "What people ordered and what became of it, newest first", orders,
                                  OrderParameters(), {400, 504});
    const json::object id{{"name", "id"},
                          {"in", "path"},
                          {"required", true},
                          {"description", "Its id, or a beginning of at least 4 characters that fits one only"},
                          {"schema", text}};
    paths["/v1/operations/{id}"] =
        Reading("operation", "One job", Answer("The job", "application/json", Reference("schemas", "ZOperationMsg")),
                json::array{id}, {400, 404, 409, 504});
    paths["/v1/log"] =
        Reading("log", "The newest log lines, oldest first", Answer("The lines", "application/json", lines),
                {QueryParameter("lines", "How many, at most 1000; of answers to questions 100 are kept",
                                {{"type", "integer"}, {"minimum", 0}, {"default", 200}}),
                 QueryParameter("level", "Only of this level and above: 1 detail, 2 information, 3 warning, 4 error",
                                {{"type", "integer"}, {"minimum", 0}, {"maximum", 4}, {"default", 0}}),
                 QueryParameter("since", "Only from then on, in milliseconds since 1970",
                                {{"type", "integer"}, {"minimum", 0}, {"default", 0}})},
                {400});
    paths["/v1/metrics"] =
        Reading("metrics", "Counters in Prometheus' text format", Answer("Samples", "text/plain", text));
    paths["/v1/openapi.json"] =
        Reading("description", "This document", Answer("OpenAPI 3.1", "application/json", {{"type", "object"}}));
}

std::string MakeDocument(bool withNodes) {
    json::object paths;
    for (const Keyword& keyword : Keywords()) {
        if (withNodes || keyword.role != Role::Nodes) {
            paths["/v1/" + std::string(keyword.name)] = KeywordPath(keyword);
        }
    }
    AddReadings(paths);
    json::object schemas = MessageSchemas();
    schemas["Status"] = StatusSchema();
    schemas["Setup"] = SetupSchema();
    schemas["Problem"] = ProblemSchema();
    const json::object problem =
        Answer("Why there is no answer", "application/problem+json", Reference("schemas", "Problem"));
    return json::serialize(
        json::object{{"openapi", "3.1.0"},
                     {"info",
                      {{"title", "Arbor gateway"},
                       {"version", "1"},
                       {"description",
                        "Messages of the graph as JSON, over HTTP on a UNIX socket. Unknown keys are ignored; "
                        "enumerators are read by name or number."}}},
                     {"paths", std::move(paths)},
                     {"components", {{"schemas", std::move(schemas)}, {"responses", {{"Problem", problem}}}}}});
}

}  // namespace

const std::string& OpenApiDocument(bool withNodes) {
    static const std::string forPeople = MakeDocument(false);
    static const std::string forAll = MakeDocument(true);
    return withNodes ? forAll : forPeople;
}

}  // namespace gateway
