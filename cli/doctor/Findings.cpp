#include "doctor/Findings.h"

#include <algorithm>
#include <array>

#include "JsonFields.h"
#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl::doctor {
namespace {

constexpr std::array<const char*, 4> kNames{"ok", "warning", "fault", "unknown"};

const char* Name(State state) {
    return kNames.at(static_cast<std::size_t>(state));
}

std::string Padded(std::string text, std::size_t columns) {
    text.resize(std::max(text.size(), columns), ' ');
    return text;
}

}  // namespace

bool Findings::AddFrom(const json::value& points) {
    if (!points.is_array()) {
        return false;
    }
    for (const json::value& each : points.get_array()) {
        const auto state = std::ranges::find(kNames, fields::Text(each, "state"));
        if (state == kNames.end()) {
            return false;
        }
        Add({fields::Text(each, "point"), static_cast<State>(state - kNames.begin()), fields::Text(each, "text"),
             fields::Text(each, "advice")});
    }
    return true;
}

std::size_t Findings::Count(State state) const {
    return static_cast<std::size_t>(std::ranges::count(m_all, state, &Finding::state));
}

json::array Findings::ToJson() const {
    json::array points;
    for (const Finding& each : m_all) {
        points.push_back(json::object{
            {"point", each.point}, {"state", Name(each.state)}, {"text", each.text}, {"advice", each.advice}});
    }
    return points;
}

std::string Findings::Text() const {
    std::size_t widest = 0;
    for (const Finding& each : m_all) {
        widest = std::max(widest, each.point.size());
    }
    constexpr std::size_t kStateColumns = 9;
    std::string text;
    for (const Finding& each : m_all) {
        text += Padded(Name(each.state), kStateColumns) + Padded(each.point, widest + 2) + Escaped(each.text) + "\n";
        if (!each.advice.empty()) {
            text += std::string(kStateColumns + widest + 2, ' ') + "-> " + Escaped(each.advice) + "\n";
        }
    }
    text += "\n" + std::to_string(m_all.size()) + " points looked at";
    for (const State state : {State::kFault, State::kWarning, State::kUnknown}) {
        if (const std::size_t count = Count(state); count > 0) {
            const bool isCounted = state != State::kUnknown && count != 1;
            text += ", " + std::to_string(count) + " " + Name(state) + (isCounted ? "s" : "");
        }
    }
    return text + (Count(State::kOk) == m_all.size() ? ": all is well\n" : "\n");
}

}  // namespace arborctl::doctor
