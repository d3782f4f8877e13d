#pragma once

#include <condition_variable>
#include <mutex>

#include "HttpMessage.h"
#include "KeywordTable.h"

class ZCommEnabledObject;
class ZMessage;

namespace gateway {

/// Puts requests on the bus and waits for their answers. Thread-safe.
class Requests {
public:
    /// How many requests wait for their answers at once; further ones wait for one of these to end.
    static constexpr std::size_t kAtOnce = 8;

    Requests(ZCommEnabledObject& bus, std::chrono::milliseconds patience) : m_bus(bus), m_patience(patience) {}

    /// The answer to a request whose message is the JSON text `body`, or a problem that says why there is none.
    HttpResponse Handle(const Keyword& keyword, const std::string& body);

private:
    bool TakeTurn();
    void EndTurn();
    HttpResponse Ask(const Keyword& keyword, const std::shared_ptr<ZMessage>& message);

    ZCommEnabledObject& m_bus;
    const std::chrono::milliseconds m_patience;

    std::mutex m_mutex;
    std::condition_variable m_ended;
    std::size_t m_waiting = 0;
};

}  // namespace gateway
