#include "http/Target.h"

#include <charconv>

namespace gateway {

namespace {

std::string Decoded(std::string_view text, bool plusIsBlank) {
    std::string decoded;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::string_view digits = text.substr(at + 1, 2);
        unsigned char byte = 0;
        if (text[at] == '%' && digits.size() == 2 &&
            std::from_chars(digits.begin(), digits.end(), byte, 16).ptr == digits.end()) {
            decoded += static_cast<char>(byte);
            at += 2;
        } else {
            decoded += plusIsBlank && text[at] == '+' ? ' ' : text[at];
        }
    }
    return decoded;
}

}  // namespace

void ReadTarget(std::string_view target, HttpRequest& request) {
    const std::size_t mark = target.find('?');
    request.path = Decoded(target.substr(0, mark), false);
    std::string_view rest = mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
    while (!rest.empty()) {
        const std::string_view parameter = rest.substr(0, rest.find('&'));
        rest.remove_prefix(std::min(rest.size(), parameter.size() + 1));
        const std::size_t equals = std::min(parameter.find('='), parameter.size());
        if (equals > 0) {
            const std::string_view value = parameter.substr(std::min(parameter.size(), equals + 1));
            request.query.emplace(Decoded(parameter.substr(0, equals), true), Decoded(value, true));
        }
    }
}

std::string TextOf(const HttpRequest& request, const char* name) {
    const auto found = request.query.find(name);
    return found == request.query.end() ? std::string() : found->second;
}

std::optional<std::size_t> NumberOf(const HttpRequest& request, const char* name, std::size_t otherwise) {
    if (!request.query.contains(name)) {
        return otherwise;
    }
    const std::string text = TextOf(request, name);
    std::size_t value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool good = failure == std::errc() && end == text.data() + text.size() && value <= INT64_MAX;
    return good ? std::optional(value) : std::nullopt;
}

}  // namespace gateway
