#include "ZShared/ZLogLimit.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace {
constexpr auto kPause = std::chrono::minutes(1);
constexpr auto kForgottenAfter = std::chrono::hours(1);  // even if some were left out
constexpr std::size_t kLongestKind = 200;
constexpr const char* kAllOthers = "";
}  // namespace

std::optional<std::string> ZLogLimit::Admit(std::string kind, ZClock::time_point now) {
    kind.resize(std::min(kind.size(), kLongestKind));
    const auto kinds = m_kinds.Lock();
    auto known = kinds->find(kind);
    if (known == kinds->end() && kinds->size() >= m_mostKinds) {
        std::erase_if(*kinds, [now](const auto& entry) {
            return now - entry.second.since >= (entry.second.leftOut == 0 ? kPause : kForgottenAfter);
        });
    }
    if (known == kinds->end()) {
        const bool isNew = kinds->size() < m_mostKinds;
        bool isFirst = false;
        std::tie(known, isFirst) = kinds->try_emplace(isNew ? kind : kAllOthers, Kind{now});
        if (isFirst) {
            return std::string();
        }
    }
    if (now - known->second.since < kPause) {
        const bool isTold = known->second.told < m_aMinute;
        known->second.told += isTold ? 1 : 0;
        known->second.leftOut += isTold ? 0 : 1;
        return isTold ? std::optional<std::string>("") : std::nullopt;
    }
    const auto leftOut = std::exchange(known->second, Kind{now}).leftOut;
    return leftOut == 0 ? std::string() : " (" + std::to_string(leftOut) + " more like it)";
}
