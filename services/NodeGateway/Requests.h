#pragma once

#include <sys/types.h>

#include <chrono>
#include <mutex>

#include "KeywordTable.h"
#include "http/HttpMessage.h"

class ZCommEnabledObject;
class ZMessage;

namespace gateway {

/// Puts requests on the bus and waits for their answers. Thread-safe.
class Requests {
public:
    Requests(ZCommEnabledObject& bus, std::chrono::milliseconds patience) : m_bus(bus), m_patience(patience) {}

    /// The answer to a request of `user` whose message is the JSON text `body`, or a problem that says why there is
    /// none. When it has begun a job, the answer tells its id.
    HttpResponse Handle(const Keyword& keyword, const std::string& body, uid_t user);

private:
    HttpResponse Ask(const Keyword& keyword, const std::shared_ptr<ZMessage>& message);

    ZCommEnabledObject& m_bus;
    const std::chrono::milliseconds m_patience;
    std::mutex m_largeDocument;
};

}  // namespace gateway
