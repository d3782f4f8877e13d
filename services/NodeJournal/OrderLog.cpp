#include "OrderLog.h"

#include <algorithm>

#include "MessageRows.h"
#include "ZShared/ZLog.h"

namespace journal {

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZNodeJournal");
}

constexpr std::size_t kMostInMemory = 1000;
constexpr std::size_t kLongestText = 512;
constexpr std::size_t kLongestId = 64;

}  // namespace

void OrderLog::Take(const std::shared_ptr<ZOrderMsg>& order) {
    if (order->m_Id.empty() || order->m_Id.size() > kLongestId) {
        Z_LOG(3, "An order with the id \"%s\" is not kept", order->m_Id.substr(0, kLongestId));
        return;
    }
    std::erase_if(m_unwritten, [&](const auto& entry) { return entry.second->m_Id == order->m_Id; });
    m_unwritten[++m_lastNumber] = MessageRows<ZOrderMsg>::Bounded(order, kLongestText);
    if (m_unwritten.size() > kMostInMemory) {
        m_unwritten.erase(m_unwritten.begin());
    }
}

ZResult<void> OrderLog::Write(OrderStore& store) {
    std::vector<Order> orders;
    for (const auto& [number, message] : m_unwritten) {
        orders.push_back({number, message});
    }
    auto written = store.Write(orders);
    if (written) {
        m_unwritten.clear();
    }
    return written;
}

void OrderLog::OnOpened(const OrderStore& store) {
    if (m_unwritten.empty() || m_unwritten.begin()->first <= store.LastNumber()) {
        m_lastNumber = std::max(m_lastNumber, store.LastNumber());
        for (auto& [number, message] : std::exchange(m_unwritten, {})) {
            m_unwritten[++m_lastNumber] = std::move(message);
        }
    }
}

ZResult<std::vector<Order>> OrderLog::Choose(const OrderQuery& query, OrderStore* store) const {
    std::vector<Order> orders;
    for (auto entry = m_unwritten.rbegin(); entry != m_unwritten.rend() && orders.size() <= query.limit; ++entry) {
        const Order order{entry->first, entry->second};
        if (query.Fits(order)) {
            orders.push_back(order);
        }
    }
    if (store == nullptr) {
        return orders;
    }
    const auto waits = [this](const ZString& id) {
        return std::ranges::any_of(m_unwritten, [&](const auto& entry) { return entry.second->m_Id == id; });
    };
    auto stored = store->List(query, waits);
    if (!stored) {
        return stored.error();
    }
    std::ranges::move(*stored, std::back_inserter(orders));
    return orders;
}

std::shared_ptr<ZOrdersMsg> AnswerOf(std::vector<Order> orders, std::size_t limit) {
    auto answer = Z_MAKE(ZOrdersMsg);
    if (orders.size() > limit) {
        orders.resize(limit);
        answer->m_Next = ToZString(std::to_string(orders.back().number));
    }
    for (Order& order : orders) {
        answer->m_Orders.push_back(std::move(order.message));
    }
    return answer;
}

}  // namespace journal
