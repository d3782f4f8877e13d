#pragma once

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

    /// The answer to a request whose message is the JSON text `body`, or a problem that says why there is none.
    HttpResponse Handle(const Keyword& keyword, const std::string& body);

private:
    HttpResponse Ask(const Keyword& keyword, const std::shared_ptr<ZMessage>& message);

    ZCommEnabledObject& m_bus;
    const std::chrono::milliseconds m_patience;
    std::mutex m_largeDocument;
};

}  // namespace gateway
