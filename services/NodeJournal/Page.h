#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string>

#include "ZMessages/ZMessage.h"
#include "ZShared/ZError.h"

namespace journal {

/// What a request asks for that can't be had.
inline ZError Bad(std::string text) {
    return ZError(std::move(text), ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST);
}

/// A part of a list whose entries are numbered, the newest first.
struct Page {
    std::int64_t since = 0;                                          ///< milliseconds since 1970
    std::size_t limit = 0;                                           ///< so many entries at most
    std::int64_t before = std::numeric_limits<std::int64_t>::max();  ///< an entry's number

    /// Sets it as a request asks, one with the fields m_Since, m_Limit and m_Before.
    template <typename Request>
    ZResult<void> Take(const Request& request) {
        constexpr std::uint32_t kUsual = 100;
        constexpr std::uint32_t kMost = 1000;
        since = request.m_Since;
        limit = request.m_Limit == 0 ? kUsual : std::min(request.m_Limit, kMost);
        const ZString& text = request.m_Before;
        if (!text.empty()) {
            const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), before);
            if (failure != std::errc() || end != text.data() + text.size() || before < 0) {
                return Bad("\"before\" is the \"next\" of the page before");
            }
        }
        return {};
    }
};

}  // namespace journal
