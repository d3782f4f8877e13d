#pragma once

#include <boost/json.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "HttpConnection.h"
#include "Result.h"

namespace arborctl {

/// Where the device is and how long to wait for it.
struct Settings {
    std::string socketPath;
    std::optional<std::chrono::milliseconds> timeout;  ///< The user's own; replaces every limit below.
    bool json = false;

    /// One request and its answer: a little more than the device itself waits before it says that nobody answered.
    [[nodiscard]] std::chrono::milliseconds RequestLimit() const { return Limit(std::chrono::seconds{35}); }
    /// Without any news of a running operation: as long as the device lets one of its own commands run.
    [[nodiscard]] std::chrono::milliseconds SilenceLimit() const { return Limit(std::chrono::minutes{15}); }
    /// Until a lost connection must be back: a device that restarts its services needs some seconds.
    [[nodiscard]] std::chrono::milliseconds ReconnectLimit() const { return Limit(std::chrono::minutes{1}); }

private:
    [[nodiscard]] std::chrono::milliseconds Limit(std::chrono::milliseconds usual) const {
        return timeout.value_or(usual);
    }
};

// Statuses of an answer that mean the same for every request.
inline constexpr int kNobodyServesIt = 503;  ///< or it has too much to do at present
inline constexpr int kNobodyAnswered = 504;

/// The problem document of a refused request as one sentence: title, detail, status and the field to blame; and what
/// to do about it, where the request's path says that.
Failure ProblemOf(const HttpReply& reply, const std::string& path);

/// Requests to one device. Every call ends within the request limit, and at once when the user interrupts. One thread.
class GatewayClient {
public:
    explicit GatewayClient(const Settings& settings);

    /// A resource of the device ("/v1/status").
    Result<boost::json::value> Get(const std::string& path);

    /// The answer to a message sent on a keyword; null for a notification that the device took without a word. `limit`
    /// replaces the request limit.
    Result<boost::json::value> Send(const std::string& keyword, const boost::json::value& message,
                                    std::optional<std::chrono::milliseconds> limit = {});

    /// Send() of what changes something: a device that breaks off may have done it all the same, and the failure says
    /// so.
    Result<boost::json::value> Order(const std::string& keyword, const boost::json::value& message);

private:
    Result<boost::json::value> Perform(const std::string& path, std::chrono::milliseconds limit,
                                       const std::function<HttpReply()>& request);

    std::chrono::milliseconds m_limit;
    HttpConnection m_connection;
};

}  // namespace arborctl
