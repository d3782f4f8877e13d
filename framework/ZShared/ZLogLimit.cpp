#include "ZShared/ZLogLimit.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace {
constexpr auto kPause = std::chrono::minutes(1);
constexpr std::size_t kLongestKind = 200;
constexpr const char* kAllOthers = "";
}  // namespace

std::optional<std::string> ZLogLimit::Admit(std::string kind, ZClock::time_point now) {
    kind.resize(std::min(kind.size(), kLongestKind));
    const auto kinds = m_kinds.Lock();
    auto known = kinds->find(kind);
    if (known == kinds->end() && kinds->size() >= m_mostKinds) {
        std::erase_if(*kinds, [now](const auto& entry) {
            return entry.second.leftOut == 0 && now - entry.second.told >= kPause;
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
    if (now - known->second.told < kPause) {
        ++known->second.leftOut;
        return std::nullopt;
    }
    known->second.told = now;
    const auto leftOut = std::exchange(known->second.leftOut, 0);
    return leftOut == 0 ? std::string() : " (" + std::to_string(leftOut) + " more like it)";
}
