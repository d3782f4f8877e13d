#include <algorithm>
#include <cctype>
#include <cstddef>
#include <fstream>
#include <iostream>
#include <iterator>

#include "Commands.h"
#include "Interrupt.h"
#include "JsonFields.h"
#include "Table.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl {
namespace {

constexpr const char* kUnknown = "unknown";

std::string YesNo(const json::value& value) {
    if (!value.is_bool()) {
        return kUnknown;
    }
    return value.get_bool() ? "yes" : "no";
}

/// A list of texts, or of objects that have one under `key`, in one line.
std::string Joined(const json::value& list, std::string_view key = {}) {
    if (!list.is_array()) {
        return kUnknown;
    }
    std::string text;
    for (const auto& element : list.get_array()) {
        const auto item = element.is_string() ? std::string(element.get_string()) : fields::Text(element, key);
        text += (text.empty() ? "" : ", ") + item;
    }
    return text.empty() ? "none" : text;
}

std::string ProgressText(const json::value& progress) {
    if (!progress.is_object()) {
        return "none";
    }
    const auto state = fields::Flag(progress, "error") ? " (failed)" : fields::Flag(progress, "done") ? " (done)" : "";
    return fields::Text(progress, "header") + ": " + fields::Text(progress, "message") + ", " +
           fields::Text(progress, "percent", "0") + " %" + state;
}

std::string StatusText(const json::value& status) {
    const json::value& device = fields::Member(status, "device");
    Table table;
    table.AddRow({"Software", fields::Text(status, "version", kUnknown) + " (" + fields::Text(status, "hash") + ")"});
    table.AddRow({"Device", fields::Text(device, "model", kUnknown)});
    table.AddRow({"Serial number", fields::Text(device, "serialNumber", kUnknown)});
    table.AddRow({"Board", fields::Text(device, "board", kUnknown)});
    table.AddRow({"Installed version", fields::Text(status, "installedVersion", kUnknown)});
    table.AddRow({"Available updates", Joined(fields::Member(status, "updates"), "version")});
    table.AddRow({"Update in progress", YesNo(fields::Member(status, "updateInProgress"))});
    table.AddRow({"Last progress", ProgressText(fields::Member(status, "progress"))});
    table.AddRow({"Drives", Joined(fields::Member(status, "drives"))});
    return table.Text();
}

std::string UpdatesText(const json::array& updates) {
    if (updates.empty()) {
        return "No updates available.\n";
    }
    Table table({"VERSION", "TYPE"});
    for (const auto& update : updates) {
        table.AddRow({fields::Text(update, "version", kUnknown), fields::Text(update, "versionType")});
    }
    return table.Text();
}

std::string CompatibilityText(const json::value& answer) {
    Table table;
    table.AddRow({"Compatible", YesNo(fields::Member(answer, "compatible"))});
    table.AddRow({"Requires update", YesNo(fields::Member(answer, "requiresUpdate"))});
    table.AddRow({"Target version", fields::Text(answer, "targetVersion", kUnknown)});
    return table.Text();
}

/// All bytes of a stream; a failure names it.
Result<std::string> ReadAll(std::istream& stream, const std::string& name) {
    std::string text{std::istreambuf_iterator<char>(stream), {}};
    if (Interrupted()) {
        return InterruptedByUser();
    }
    return stream.bad() ? Result<std::string>(UsageFailure(Escaped(name) + ": cannot be read")) : text;
}

Result<std::string> BodyText(const std::string& body) {
    if (body == "-") {
        return ReadAll(std::cin, "standard input");
    }
    if (body.front() != '@') {
        return body;
    }
    const std::string name = body.substr(1);
    std::ifstream file(name, std::ios::binary);
    if (!file) {
        return UsageFailure(Escaped(name) + ": cannot be opened");
    }
    return ReadAll(file, name);
}

bool IsKeyword(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char character) {
        return std::isalnum(character) != 0 || character == '_' || character == '-';
    });
}

}  // namespace

Result<ExitCode> ShowStatus(Session& session) {
    const auto status = session.gateway.Get("/v1/status");
    if (!status) {
        return status.error();
    }
    session.Print(*status, StatusText(*status));
    return ExitCode::kDone;
}

Result<ExitCode> ShowUpdates(Session& session) {
    const auto answer = session.gateway.Send("findupdates", json::object{});
    if (!answer) {
        return answer.error();
    }
    session.Print(*answer, UpdatesText(fields::List(*answer, "messages")));
    return ExitCode::kDone;
}

Result<ExitCode> CompareVersions(Session& session, const std::string& first, const std::string& second) {
    const auto answer =
        session.gateway.Send("compareversions", json::object{{"version1", first}, {"version2", second}});
    if (!answer) {
        return answer.error();
    }
    const char* relation = fields::Flag(*answer, "result") ? " >= " : " < ";
    session.Print(*answer, Escaped(first) + relation + Escaped(second) + "\n");
    return ExitCode::kDone;
}

Result<ExitCode> CheckCompatibility(Session& session, const CompatibilityQuestion& question) {
    json::object message{{"version", question.version}, {"board", question.board}};
    if (!question.model.empty()) {
        message["model"] = question.model;
    }
    const auto answer = session.gateway.Send("checkCompatibility", message);
    if (!answer) {
        return answer.error();
    }
    session.Print(*answer, CompatibilityText(*answer));
    return fields::Flag(*answer, "compatible") ? ExitCode::kDone : ExitCode::kRefused;
}

Result<ExitCode> ListKeywords(Session& session) {
    const auto description = session.gateway.Get("/v1/openapi.json");
    if (!description) {
        return description.error();
    }
    constexpr std::string_view kFolder = "/v1/";
    json::array keywords;
    std::string text;
    const json::value* paths = description->is_object() ? description->as_object().if_contains("paths") : nullptr;
    for (const auto& [path, operations] :
         paths != nullptr && paths->is_object() ? paths->as_object() : json::object()) {
        if (path.starts_with(kFolder) && operations.is_object() && operations.as_object().contains("post")) {
            const std::string keyword(path.substr(kFolder.size()));
            keywords.emplace_back(keyword);
            text += Escaped(keyword) + '\n';
        }
    }
    session.Print(json::object{{"keywords", std::move(keywords)}}, text);
    return ExitCode::kDone;
}

Result<ExitCode> SendMessage(Session& session, const std::string& keyword, const std::string& body) {
    if (!IsKeyword(keyword)) {
        return UsageFailure(Escaped(keyword) + ": a keyword has letters, digits, _ and - only");
    }
    const auto text = BodyText(body.empty() ? "{}" : body);
    if (!text) {
        return text.error();
    }
    const auto message = fields::Parse(*text);
    if (!message) {
        return UsageFailure("the message is " + message.error().text);
    }
    if (!message->is_object()) {
        return UsageFailure("the message is no JSON object");
    }
    const auto answer = session.gateway.Send(keyword, *message);
    if (!answer) {
        return answer.error();
    }
    if (answer->is_null()) {
        session.Print(json::object{{"accepted", true}}, "accepted\n");
        return ExitCode::kDone;
    }
    session.Print(*answer, fields::Pretty(*answer));
    return fields::Flag(*answer, "bSuccess", true) ? ExitCode::kDone : ExitCode::kRefused;
}

}  // namespace arborctl
