#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "NodeComm/ZCommEndpoint.h"
#include "ZShared/ZError.h"

/// One question whether the version that runs works, as the graph file or the manifest asks it:
///
///     must measures 20 /usr/libexec/selftest --quick     a shell command: passed with status 0
///     should accessory 5 request 3:checkCompatibility    a request to the graph: passed when it is answered, and
///                                                        the answer does not say that it failed
struct HealthCheck {
    bool bMust = false;
    std::string name{};
    std::chrono::seconds limit{};
    std::string command{};  ///< empty for a request
    ZEndpointType type = ZEndpointType::GraphService;
    std::string keyword{};  ///< of a request

    bool IsRequest() const { return !keyword.empty(); }
    static ZResult<HealthCheck> Parse(std::string_view text);
};

/// The checks that a manifest brings along, in its list "healthChecks"; none when it has no such list. An error names
/// the file and the check.
ZResult<std::vector<HealthCheck>> ReadManifestChecks(const std::string& manifest);
