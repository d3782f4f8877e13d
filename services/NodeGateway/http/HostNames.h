#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace gateway {

/// The names under which a listener on the network may be asked: a page in somebody's browser can make its own name
/// mean this device's address, but not make the browser tell another name.
class HostNames {
public:
    /// `names` beside those of this machine for itself.
    explicit HostNames(const std::vector<std::string>& names);

    /// Whether a "Host" header ("name", "name:port", "[::1]:port") names the listener, whose address is `ownAddress`.
    bool IsOurs(std::string_view host, std::string_view ownAddress) const;
    /// The same of an "Origin" header ("https://name:port").
    bool IsOurOrigin(std::string_view origin, std::string_view ownAddress) const;
    /// Whether a text can be one of the names.
    static bool IsName(std::string_view text);

private:
    std::set<std::string> m_names;  // in lower case
};

}  // namespace gateway
