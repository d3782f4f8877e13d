#pragma once

#include <array>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "Database.h"
#include "Page.h"
#include "ZMessages/OrderMessages.h"

namespace journal {

/// An order with its place among all.
struct Order {
    std::int64_t number = 0;
    std::shared_ptr<ZOrderMsg> message;
};

/// A request "orders", read and found good.
struct OrderQuery : Page {
    std::string user;  ///< a name or a number; empty: all
    std::optional<bool> accepted;

    static ZResult<OrderQuery> Of(const ZOrdersRequestMsg& request);
    /// All but `limit`.
    bool Fits(const Order& order) const;
};

/// The orders on the disk. Each function is a whole: done, or nothing of it, with the reason. Used from one thread.
class OrderStore {
public:
    /// `most` orders are kept, of which a quarter may be refused ones: nobody pushes out what was done by asking for
    /// what he is refused.
    OrderStore(Database& database, std::int64_t most);
    static ZResult<void> MakeTable(Database& database);
    ZResult<void> Count();

    /// Writes new orders, and older ones anew, which keep their places; removes the oldest beyond the bounds.
    ZResult<void> Write(std::span<const Order> orders);
    /// The newest that fit, but the one with an id that `skip` names.
    ZResult<std::vector<Order>> List(const OrderQuery& query, const std::function<bool(const ZString& id)>& skip);
    /// The greatest number of an order; 0: there is none.
    std::int64_t LastNumber() const { return m_lastNumber; }

private:
    ZResult<void> WriteOne(const Order& order);
    ZResult<void> Trim(bool accepted);

    Database& m_database;
    const std::array<std::int64_t, 2> m_most;  // refused, accepted
    std::array<std::int64_t, 2> m_rows{};      // likewise
    std::int64_t m_lastNumber = 0;
    Statement m_write;
    Statement m_remove;
    Statement m_list;
};

}  // namespace journal
