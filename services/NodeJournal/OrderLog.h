#pragma once

#include <map>

#include "OrderStore.h"

namespace journal {

/// Every order that people gave: on the disk, and in memory those that it has not taken yet. Used from one thread.
class OrderLog {
public:
    /// Keeps it until it is written; of those that can't be, the newest.
    void Take(const std::shared_ptr<ZOrderMsg>& order);
    bool HasUnwritten() const { return !m_unwritten.empty(); }
    ZResult<void> Write(OrderStore& store);
    /// The file was opened, perhaps another one than before: what waits comes behind what is in it.
    void OnOpened(const OrderStore& store);

    /// The newest that fit, one more than the limit when there are more. `store` may be null; an error is the store's.
    ZResult<std::vector<Order>> Choose(const OrderQuery& query, OrderStore* store) const;

private:
    std::map<std::int64_t, std::shared_ptr<ZOrderMsg>> m_unwritten;  // by number
    std::int64_t m_lastNumber = 0;
};

/// The answer that tells these orders, and how to ask for the next page.
std::shared_ptr<ZOrdersMsg> AnswerOf(std::vector<Order> orders, std::size_t limit);

}  // namespace journal
