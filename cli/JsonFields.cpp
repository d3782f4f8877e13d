#include "JsonFields.h"

#include <array>
#include <utility>

#include "TextFormat.h"

namespace json = boost::json;

namespace arborctl::fields {
namespace {

/// Error codes that a service engineer meets, in words; others are shown by their name.
constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kErrorWords{{
    {"ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE", "the package file is not valid or could not be started"},
    {"ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED", "this version is not allowed here"},
    {"ERRCODE_NOT_FOUND", "not found"},
    {"ERRCODE_BUSY", "it has another one to do; try again when that has ended (arborctl status)"},
}};

bool IsPlain(const json::value& value) {
    return value.is_string() || value.is_bool() || value.is_number();
}

void AppendPretty(std::string& out, const json::value& value, const std::string& indent) {
    const std::string inner = indent + "  ";
    if (value.is_object() && !value.get_object().empty()) {
        const char* separator = "{\n";
        for (const auto& member : value.get_object()) {
            out += separator + inner + Escaped(json::serialize(member.key())) + ": ";
            AppendPretty(out, member.value(), inner);
            separator = ",\n";
        }
        out += "\n" + indent + "}";
    } else if (value.is_array() && !value.get_array().empty()) {
        const char* separator = "[\n";
        for (const auto& element : value.get_array()) {
            out += separator + inner;
            AppendPretty(out, element, inner);
            separator = ",\n";
        }
        out += "\n" + indent + "]";
    } else {
        out += Escaped(json::serialize(value));
    }
}

}  // namespace

const json::value& Member(const json::value& document, std::string_view key) {
    static const json::value kNull;
    const auto* object = document.if_object();
    const auto* found = object != nullptr ? object->if_contains(key) : nullptr;
    return found != nullptr ? *found : kNull;
}

std::string Text(const json::value& document, std::string_view key, std::string_view fallback) {
    const json::value& member = Member(document, key);
    if (member.is_string()) {
        return std::string(member.get_string());
    }
    return IsPlain(member) ? json::serialize(member) : std::string(fallback);
}

bool Flag(const json::value& document, std::string_view key, bool fallback) {
    const json::value& member = Member(document, key);
    return member.is_bool() ? member.get_bool() : fallback;
}

std::int64_t Number(const json::value& document, std::string_view key, std::int64_t fallback) {
    json::error_code error;
    const auto number = Member(document, key).to_number<std::int64_t>(error);
    return error ? fallback : number;
}

const json::array& List(const json::value& document, std::string_view key) {
    static const json::array kEmpty;
    const auto* list = Member(document, key).if_array();
    return list != nullptr ? *list : kEmpty;
}

std::string Refusal(const json::value& message, const std::string& fallback) {
    if (const std::string text = Text(message, "text"); !text.empty()) {
        return Escaped(text);
    }
    const std::string code = Text(message, "ErrCode");
    if (code.empty() || code == "ERRCODE_NONE" || code == "0") {
        return fallback;
    }
    for (const auto& [name, words] : kErrorWords) {
        if (name == code) {
            return std::string(words) + " (" + code + ")";
        }
    }
    return fallback + " (" + Escaped(code) + ")";
}

Result<json::value> Parse(std::string_view text) {
    json::error_code error;
    json::parser parser;
    const std::size_t taken = parser.write_some(text.data(), text.size(), error);
    if (!error && text.find_first_not_of(" \t\r\n", taken) != std::string_view::npos) {
        error = json::error::extra_data;
    }
    if (error) {
        return UsageFailure("not JSON at byte " + std::to_string(taken) + ": " + error.message());
    }
    return parser.release();
}

std::string Pretty(const json::value& document) {
    std::string out;
    AppendPretty(out, document, "");
    return out + "\n";
}

}  // namespace arborctl::fields
