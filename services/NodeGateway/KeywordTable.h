#pragma once

#include <array>
#include <span>
#include <string_view>

#include "NodeComm/ZCommEndpoint.h"
#include "Roles.h"

namespace gateway {

/// Far more than any message needs, but for those that carry a file.
constexpr std::size_t kUsualBody = std::size_t{64} * 1024;

/// One request, order or notification, offered as POST /v1/<name>. The graph knows all of them but "scan", of which the
/// gateway makes one of the messages between nodes.
struct Keyword {
    const char* name;
    Role role;  ///< who may send it
    ZEndpointType type;
    /// The classes of the request; the rest is null. With several, the request must say which it is.
    std::array<const char*, 3> requests;
    const char* answer;  ///< the class of the answer; null: a notification, which has none
    const char* summary;
    std::size_t largestBody = kUsualBody;  ///< of the request, in bytes
    bool beginsJob = false;                ///< may begin one, whose id its answer tells
    const char* instead = "";              ///< of a message between nodes: what a person does

    bool IsNotification() const { return answer == nullptr; }
    std::span<const char* const> RequestClasses() const;
};

/// Every keyword. Requests, the description of the interface and refusals follow from this one table.
std::span<const Keyword> Keywords();

/// Null when there is no such keyword.
const Keyword* FindKeyword(std::string_view name);

}  // namespace gateway
