#include "OrderBook.h"

#include <algorithm>

#include "NodeBase/ZCommEnabledObject.h"
#include "http/GatewayLog.h"

namespace gateway {

namespace {

using std::chrono::seconds;

constexpr auto kCountedFor = seconds(60);
constexpr auto kToldEvery = seconds(10);
constexpr auto kPatience = seconds(1);
constexpr std::size_t kMostCounted = 1024;
constexpr std::ptrdiff_t kMostRefused = 20;  // of one user in a minute
constexpr const char* kMore = "further orders of this user that were refused";

std::string KeyOf(const ZOrderMsg& order) {
    std::string key = std::to_string(order.m_UserId);
    for (const ZString* part : {&order.m_User, &order.m_Keyword, &order.m_Subject, &order.m_Reason}) {
        key.append("\n").append(*part);
    }
    return key + (order.m_bAccepted ? "\n+" : "\n-");
}

std::shared_ptr<ZOrderMsg> CopyOf(const ZOrderMsg& order) {
    auto copy = ZMakeShared<ZOrderMsg>();
    copy->CloneDataMembers(order);
    return copy;
}

}  // namespace

OrderBook::Counted* OrderBook::Find(Book& book, const ZOrderMsg& order) {
    const auto found = book.find(KeyOf(order));
    return found == book.end() ? nullptr : &found->second;
}

void OrderBook::CountUp(Counted& counted, const ZOrderMsg& order) {
    ++counted.order->m_Count;
    counted.order->m_LastTime = order.m_Time;
    counted.hasNews = true;
}

void OrderBook::Take(Counted& counted, ZClock::time_point now, Orders& due) {
    due.push_back(CopyOf(*counted.order));
    counted.told = now;
    counted.hasNews = false;
}

void OrderBook::Forget(Book& book, ZClock::time_point now, Orders& due) {
    for (auto entry = book.begin(); entry != book.end();) {
        const bool old = entry->second.begun + kCountedFor <= now;
        if (old && entry->second.hasNews) {
            Take(entry->second, now, due);
        }
        entry = old ? book.erase(entry) : std::next(entry);
    }
}

void OrderBook::Note(const std::shared_ptr<ZOrderMsg>& order, ZClock::time_point now) {
    if (!order->m_OperationId.empty()) {
        Publish({order});
        return;
    }
    Orders due;
    {
        auto book = m_book.Lock();
        Forget(*book, now, due);
        Counted* counted = Find(*book, *order);
        const auto isRefusedOne = [&](const auto& entry) {
            const ZOrderMsg& other = *entry.second.order;
            return other.m_UserId == order->m_UserId && other.m_User == order->m_User && !other.m_bAccepted;
        };
        auto written = CopyOf(*order);
        if (counted == nullptr && !order->m_bAccepted && std::ranges::count_if(*book, isRefusedOne) >= kMostRefused) {
            written->m_Keyword = {};
            written->m_Subject = {};
            written->m_Program = {};
            written->m_ProcessId = 0;
            written->m_Reason = kMore;
            counted = Find(*book, *written);
        }
        if (counted != nullptr) {
            CountUp(*counted, *order);
            if (counted->told + kToldEvery <= now) {
                Take(*counted, now, due);
            }
        } else {
            due.push_back(CopyOf(*written));
            if (book->size() < kMostCounted) {
                (*book)[KeyOf(*written)] = {written, now, now, false};
            }
        }
    }
    Publish(due);
}

void OrderBook::Tell(std::chrono::milliseconds age, ZClock::time_point now) {
    Orders due;
    {
        auto book = m_book.Lock();
        for (auto& [key, counted] : *book) {
            if (counted.hasNews && counted.told + age <= now) {
                Take(counted, now, due);
            }
        }
    }
    Publish(due);
}

void OrderBook::Publish(const Orders& orders) {
    const auto endpoint = m_bus.GetEndpoint(ZEndpointType::GraphService, "order", 0);
    for (const auto& order : orders) {
        const ZPublishOutcome outcome = m_bus.PublishWithOutcome(endpoint, order, nullptr, {true, false, kPatience});
        if (outcome == ZPublishOutcome::QueueFull) {
            if (const auto more = m_lost.Admit("full")) {
                Z_LOG(4,
                      "An order of %s (\"%s\") is not written down: the journal has more to do than its queue "
                      "holds%s",
                      order->m_User, order->m_Keyword, *more);
            }
        }
    }
}

}  // namespace gateway
