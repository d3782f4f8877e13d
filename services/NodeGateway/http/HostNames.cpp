#include "http/HostNames.h"

#include <boost/asio/ip/address.hpp>

namespace gateway {

namespace {

constexpr std::size_t kLongestName = 253;  // that names have anywhere
constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz0123456789-_.";

std::string InLowerCase(std::string_view text) {
    std::string lower(text);
    for (char& letter : lower) {
        letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    }
    return lower;
}

/// The usual spelling of an address; empty when the text is none.
std::string AddressText(std::string_view text) {
    boost::system::error_code failure;
    const auto address = boost::asio::ip::make_address(text, failure);
    return failure ? std::string() : address.to_string();
}

/// Behind the name: nothing, or a port.
bool IsPort(std::string_view text) {
    return text.empty() || (text.front() == ':' && text.size() <= 6 &&
                            text.find_first_not_of("0123456789", 1) == std::string_view::npos);
}

/// The name or address without its port, in its usual spelling; empty when the text is neither.
std::string NameOf(std::string_view authority) {
    if (authority.starts_with('[')) {
        const std::size_t end = authority.find(']');
        const bool whole = end != std::string_view::npos && IsPort(authority.substr(end + 1));
        return whole ? AddressText(authority.substr(1, end - 1)) : std::string();
    }
    const std::string_view name = authority.substr(0, authority.find(':'));
    return IsPort(authority.substr(name.size())) ? InLowerCase(name) : std::string();
}

}  // namespace

HostNames::HostNames(const std::vector<std::string>& names) : m_names{"localhost", "127.0.0.1", "::1"} {
    for (const std::string& name : names) {
        m_names.insert(InLowerCase(name));
    }
}

bool HostNames::IsName(std::string_view text) {
    return !text.empty() && text.size() <= kLongestName &&
           InLowerCase(text).find_first_not_of(kLetters) == std::string::npos;
}

bool HostNames::IsOurs(std::string_view host, std::string_view ownAddress) const {
    const std::string name = NameOf(host);
    return !name.empty() && (name == ownAddress || m_names.contains(name));
}

bool HostNames::IsOurOrigin(std::string_view origin, std::string_view ownAddress) const {
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (origin.starts_with(scheme)) {
            return IsOurs(origin.substr(scheme.size()), ownAddress);
        }
    }
    return false;
}

}  // namespace gateway
