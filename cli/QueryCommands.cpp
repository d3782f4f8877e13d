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
