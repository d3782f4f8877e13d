#pragma once

#include <map>
#include <string>
#include <vector>

#include "ZMessages/OrderMessages.h"
#include "ZShared/ZDeadline.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZLogLimit.h"

class ZCommEnabledObject;

namespace gateway {

/// Has every order that people give written down by the node that keeps them ("order"). The same one again within a
/// minute, when it began no job, is counted in place of being written anew; and of one user's refused ones only so many
/// in a minute are written one by one, so that nobody fills the disk with what he is refused. Without such a node
/// nothing happens. Thread-safe.
class OrderBook {
public:
    explicit OrderBook(ZCommEnabledObject& bus) : m_bus(bus) {}

    /// `order` has its end; its count is 1. Waits for room in the other node's queue, a second at most.
    void Note(const std::shared_ptr<ZOrderMsg>& order, ZClock::time_point now = ZClock::now());
    /// Tells what was counted and not told for `age`.
    void Tell(std::chrono::milliseconds age, ZClock::time_point now = ZClock::now());

private:
    struct Counted {
        std::shared_ptr<ZOrderMsg> order;
        ZClock::time_point begun;
        ZClock::time_point told;
        bool hasNews = false;
    };
    using Book = std::map<std::string, Counted>;
    using Orders = std::vector<std::shared_ptr<ZOrderMsg>>;

    static Counted* Find(Book& book, const ZOrderMsg& order);
    static void CountUp(Counted& counted, const ZOrderMsg& order);
    static void Take(Counted& counted, ZClock::time_point now, Orders& due);
    static void Forget(Book& book, ZClock::time_point now, Orders& due);
    void Publish(const Orders& orders);

    ZCommEnabledObject& m_bus;
    ZGuarded<Book> m_book;  // of the last minute
    ZLogLimit m_lost;
};

}  // namespace gateway
