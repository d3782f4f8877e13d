#include "HealthCheck.h"

#include <algorithm>
#include <boost/json.hpp>
#include <charconv>
#include <fstream>

namespace json = boost::json;

namespace {

constexpr int kMostSeconds = 300;
constexpr std::size_t kMostChecks = 32;
constexpr std::size_t kLongestName = 48;
constexpr std::size_t kLargestManifest = std::size_t{1} << 20;
constexpr std::string_view kRequest = "request ";

/// Takes the first word off the text.
std::string_view TakeWord(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(word.size());
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return word;
}

template <typename Number>
bool ReadNumber(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

bool IsName(std::string_view text) {
    return !text.empty() && text.size() <= kLongestName && std::ranges::all_of(text, [](unsigned char letter) {
        return std::isalnum(letter) != 0 || letter == '-' || letter == '_';
    });
}

/// "3:keyword".
bool ReadEndpoint(std::string_view text, HealthCheck& check) {
    int type = 0;
    const auto colon = text.find(':');
    if (colon == std::string_view::npos || !ReadNumber(text.substr(0, colon), type) || type < 1 || type > 3) {
        return false;
    }
    check.type = static_cast<ZEndpointType>(type);
    check.keyword = text.substr(colon + 1);
    return !check.keyword.empty();
}

}  // namespace

ZResult<HealthCheck> HealthCheck::Parse(std::string_view text) {
    const auto wrong = [text](const char* what) {
        return ZError("the check '" + std::string(text.substr(0, 100)) + "': " + what);
    };
    HealthCheck check;
    std::string_view rest = text;
    const std::string_view kind = TakeWord(rest);
    if (kind != "must" && kind != "should") {
        return wrong("it begins with \"must\" or \"should\"");
    }
    check.bMust = kind == "must";
    check.name = TakeWord(rest);
    if (!IsName(check.name)) {
        return wrong("its name is letters, digits, '-' and '_'");
    }
    int seconds = 0;
    if (!ReadNumber(TakeWord(rest), seconds) || seconds < 1 || seconds > kMostSeconds) {
        return wrong("behind its name stand the seconds that it may take, 1 to 300");
    }
    check.limit = std::chrono::seconds(seconds);
    if (rest.empty()) {
        return wrong("there is nothing to run");
    }
    if (!rest.starts_with(kRequest)) {
        check.command = rest;
    } else if (!ReadEndpoint(rest.substr(kRequest.size()), check)) {
        return wrong("a request is TYPE:KEYWORD, its type 1, 2 or 3");
    }
    return check;
}

ZResult<std::vector<HealthCheck>> ReadManifestChecks(const std::string& manifest) {
    std::vector<HealthCheck> checks;
    std::ifstream stream(manifest, std::ios::binary);
    std::string text(kLargestManifest, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
    boost::system::error_code error;
    const json::value value = json::parse(text, error);
    if (error || !value.is_object()) {
        return ZError(manifest + ": it can't be read, so its health checks are not known");
    }
    const json::value* const list = value.get_object().if_contains("healthChecks");
    if (list == nullptr) {
        return checks;
    }
    if (!list->is_array() || list->get_array().size() > kMostChecks) {
        return ZError(manifest + ": \"healthChecks\" is a list of at most 32 texts");
    }
    for (const json::value& each : list->get_array()) {
        auto check = HealthCheck::Parse(each.is_string() ? std::string_view(each.get_string()) : std::string_view());
        if (!check) {
            return check.error().In(manifest);
        }
        checks.push_back(std::move(*check));
    }
    return checks;
}
