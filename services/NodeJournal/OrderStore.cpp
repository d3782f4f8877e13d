#include "OrderStore.h"

#include "MessageRows.h"

namespace journal {

namespace {

using Rows = MessageRows<ZOrderMsg>;

constexpr const char* kTable =
    "CREATE TABLE IF NOT EXISTS orders(number INTEGER PRIMARY KEY, \"id\" TEXT NOT NULL UNIQUE)";

std::string WriteText() {
    return "INSERT INTO orders(number," + Rows::Columns() + ") VALUES(?," + Rows::Places() +
           ") ON CONFLICT(id) DO UPDATE SET " + Rows::Changes() + " RETURNING number";
}

constexpr const char* kRemove =
    "DELETE FROM orders WHERE number IN (SELECT number FROM orders WHERE accepted = ?1 ORDER BY number LIMIT ?2)";

std::string ListText() {
    return "SELECT number," + Rows::Columns() +
           " FROM orders WHERE number < ?1 AND (?2 = '' OR \"user\" = ?2 OR CAST(userId AS TEXT) = ?2)"
           " AND (?3 < 0 OR accepted = ?3) AND \"time\" >= ?4 ORDER BY number DESC";
}

}  // namespace

ZResult<OrderQuery> OrderQuery::Of(const ZOrdersRequestMsg& request) {
    OrderQuery query;
    query.user = ToStdString(request.m_User);
    if (!request.m_Result.empty()) {
        query.accepted = request.m_Result == "accepted";
        if (!*query.accepted && request.m_Result != "refused") {
            return Bad("\"result\" is accepted or refused");
        }
    }
    const auto page = query.Take(request);
    return page ? ZResult<OrderQuery>(std::move(query)) : page.error();
}

bool OrderQuery::Fits(const Order& order) const {
    const ZOrderMsg& message = *order.message;
    const bool isUsers =
        user.empty() || std::string_view(message.m_User) == user || std::to_string(message.m_UserId) == user;
    return order.number < before && isUsers && (!accepted || message.m_bAccepted == *accepted) &&
           message.m_Time >= since;
}

OrderStore::OrderStore(Database& database, std::int64_t most)
    : m_database(database),
      m_most{most / 4, most - most / 4},
      m_write(database, WriteText()),
      m_remove(database, kRemove),
      m_list(database, ListText()) {}

ZResult<void> OrderStore::MakeTable(Database& database) {
    const auto made = database.Run(kTable);
    return made ? Rows::AddColumns(database, "orders") : made;
}

ZResult<void> OrderStore::Count() {
    const auto refused = m_database.Number("SELECT count(*) FROM orders WHERE accepted = 0");
    const auto accepted = m_database.Number("SELECT count(*) FROM orders WHERE accepted = 1");
    const auto last = m_database.Number("SELECT max(number) FROM orders");
    if (!refused || !accepted || !last) {
        return (!refused ? refused : !accepted ? accepted : last).error();
    }
    m_rows = {*refused, *accepted};
    m_lastNumber = *last;
    return {};
}

ZResult<void> OrderStore::Write(std::span<const Order> orders) {
    Transaction transaction(m_database);
    if (!transaction.Begun()) {
        return transaction.Begun().error();
    }
    const auto rows = m_rows;
    const std::int64_t last = m_lastNumber;
    ZResult<void> outcome;
    for (const Order& order : orders) {
        outcome = outcome ? WriteOne(order) : outcome;
    }
    for (const bool accepted : {false, true}) {
        outcome = outcome ? Trim(accepted) : outcome;
    }
    outcome = outcome ? transaction.Commit() : outcome;
    if (!outcome) {
        m_rows = rows;
        m_lastNumber = last;
    }
    return outcome;
}

ZResult<void> OrderStore::WriteOne(const Order& order) {
    m_write.Start(order.number);
    Rows::Bind(m_write, *order.message);
    const bool isNew = m_write.Next() && m_write.Number(0) == order.number;
    auto written = m_write.Finish();
    if (written && isNew && order.number > m_lastNumber) {
        m_lastNumber = order.number;
        ++m_rows.at(order.message->m_bAccepted ? 1 : 0);
    }
    return written;
}

ZResult<void> OrderStore::Trim(bool accepted) {
    std::int64_t& rows = m_rows.at(accepted ? 1 : 0);
    const std::int64_t most = m_most.at(accepted ? 1 : 0);
    if (rows <= most) {
        return {};
    }
    // Some more at once than must go, so that not every order has to remove one.
    m_remove.Start(std::int64_t{accepted}, rows - most + most / 100);
    auto removed = m_remove.Finish();
    rows -= removed ? m_database.Changes() : 0;
    return removed;
}

ZResult<std::vector<Order>> OrderStore::List(const OrderQuery& query,
                                             const std::function<bool(const ZString& id)>& skip) {
    m_list.Start(query.before, std::string_view(query.user), query.accepted ? std::int64_t{*query.accepted} : -1,
                 query.since);
    std::vector<Order> orders;
    while (orders.size() <= query.limit && m_list.Next()) {  // one more tells that there is a next page
        Order order{m_list.Number(0), Rows::Read(m_list, 1)};
        if (!skip(order.message->m_Id)) {
            orders.push_back(std::move(order));
        }
    }
    if (auto ended = m_list.End(); !ended) {
        return ended.error();
    }
    return orders;
}

}  // namespace journal
