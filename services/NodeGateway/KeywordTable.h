#pragma once

#include <array>
#include <span>
#include <string_view>

#include "NodeComm/ZCommEndpoint.h"

namespace gateway {

/// Far more than any message needs, but for those that carry a file.
constexpr std::size_t kUsualBody = std::size_t{64} * 1024;

/// One request or notification that the graph knows, offered as POST /v1/<name>.
struct Keyword {
    const char* name;
    ZEndpointType type;
    /// The classes of the request; the rest is null. With several, the request must say which it is.
    std::array<const char*, 3> requests;
    const char* answer;  ///< the class of the answer; null: a notification, which has none
    const char* summary;
    std::size_t largestBody = kUsualBody;  ///< of the request, in bytes
    bool beginsJob = false;                ///< may begin one, whose id its answer tells

    bool IsNotification() const { return answer == nullptr; }
    std::span<const char* const> RequestClasses() const;
};

/// Every keyword. Requests, the description of the interface and refusals follow from this one table.
std::span<const Keyword> Keywords();

/// Null when there is no such keyword.
const Keyword* FindKeyword(std::string_view name);

}  // namespace gateway
