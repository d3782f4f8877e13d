#include "ForwardedRequest.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <vector>

namespace arborctl {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kScheme = "Bearer ";
constexpr std::string_view kFileLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
// What is between the browser and this port alone.
constexpr std::array<std::string_view, 7> kOwn{"host",       "origin", "authorization", "connection",
                                               "keep-alive", "cookie", "upgrade"};

struct Header {
    std::string name;  // in lower case
    std::string_view value;
};

std::string InLowerCase(std::string_view text) {
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(), [](unsigned char letter) { return std::tolower(letter); });
    return lower;
}

std::string_view Trimmed(std::string_view text) {
    const std::size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
    const std::size_t end = text.find_last_not_of(" \t");
    return text.substr(begin, end == std::string_view::npos ? 0 : end + 1 - begin);
}

/// Takes the next line off `text`.
std::string_view NextLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find(kLineEnd));
    text.remove_prefix(std::min(text.size(), line.size() + kLineEnd.size()));
    return line;
}

bool IsClean(std::string_view line) {
    return std::ranges::all_of(line, [](unsigned char letter) { return letter >= ' ' || letter == '\t'; });
}

/// False when a line is no header.
bool ReadHeaders(std::string_view text, std::vector<Header>& headers) {
    while (!text.empty()) {
        const std::string_view line = NextLine(text);
        if (line.empty()) {
            return text.empty();
        }
        const std::size_t colon = line.find(':');
        const bool good = colon != std::string_view::npos && colon > 0 && IsClean(line) &&
                          line.substr(0, colon).find_first_of(" \t") == std::string_view::npos;
        if (!good) {
            return false;
        }
        headers.push_back({InLowerCase(line.substr(0, colon)), Trimmed(line.substr(colon + 1))});
    }
    return false;
}

bool IsOneOf(std::string_view text, std::string_view before, std::uint16_t port) {
    const std::string end = ":" + std::to_string(port);
    return text == std::string(before) + "127.0.0.1" + end || text == std::string(before) + "localhost" + end;
}

/// The page's files, by names that mean the same to everybody: nothing that could be read as something else.
bool IsFile(std::string_view line) {
    for (const std::string_view method : {"GET /", "HEAD /"}) {
        if (line.starts_with(method)) {
            const std::string_view rest = line.substr(method.size());
            const std::string_view name = rest.substr(0, rest.find(' '));
            return name.find_first_not_of(kFileLetters) == std::string_view::npos;
        }
    }
    return false;
}

bool ShowsSecret(const std::vector<Header>& headers, std::string_view secret) {
    const auto is = [](const Header& header) { return header.name == "authorization"; };
    const auto found = std::ranges::find_if(headers, is);
    if (found == headers.end() || std::ranges::count_if(headers, is) != 1) {
        return false;
    }
    const std::string_view shown = found->value;
    return shown.size() == kScheme.size() + secret.size() && shown.starts_with(kScheme) &&
           CRYPTO_memcmp(shown.data() + kScheme.size(), secret.data(), secret.size()) == 0;
}

std::string WhyNot(std::string_view line, const std::vector<Header>& headers, const Doorkeeping& door, int& status) {
    std::size_t hosts = 0;
    for (const auto& [name, value] : headers) {
        hosts += name == "host" ? 1 : 0;
        if (name == "host" && !IsOneOf(value, "", door.port)) {
            status = 421;
            return "this is 127.0.0.1, and has no other name";
        }
        if (name == "origin" && !IsOneOf(value, "http://", door.port)) {
            status = 403;
            return "pages of other hosts may not ask";
        }
    }
    if (hosts != 1) {
        status = 400;
        return "a request names its host once";
    }
    if (!IsFile(line) && !ShowsSecret(headers, door.secret)) {
        status = 401;
        return "the token is not the one in the address that arborctl ui told";
    }
    return {};
}

}  // namespace

boost::system::result<std::string, Refusal> ForwardedHead(std::string_view head, const Doorkeeping& door) {
    std::string_view rest = head;
    const std::string_view line = NextLine(rest);
    std::vector<Header> headers;
    const bool good = IsClean(line) && line.ends_with(" HTTP/1.1") && std::ranges::count(line, ' ') == 2;
    if (!good || !ReadHeaders(rest, headers)) {
        return Refusal{400, "this is not well-formed HTTP/1.1"};
    }
    int status = 0;
    if (std::string reason = WhyNot(line, headers, door, status); !reason.empty()) {
        return Refusal{status, std::move(reason)};
    }
    std::string forwarded = std::string(line) + "\r\nhost: localhost\r\nconnection: close\r\n";
    for (const auto& [name, value] : headers) {
        if (std::ranges::find(kOwn, name) == kOwn.end()) {
            forwarded.append(name).append(": ").append(value).append(kLineEnd);
        }
    }
    return forwarded.append(kLineEnd);
}

bool AsksForPage(std::string_view head) {
    return head.starts_with("GET / ");
}

}  // namespace arborctl
