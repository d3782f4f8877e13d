#pragma once

#include <limits>
#include <optional>
#include <string>

#include "ZMessages/OperationMessages.h"
#include "ZShared/ZError.h"

namespace journal {

/// A request "operations", read and found good.
struct JobQuery {
    std::string id;  ///< or a beginning of it; empty: all
    std::optional<ZOperationKind> kind;
    std::optional<ZOperationState> state;
    bool onlyOpen = false;
    std::string node;  ///< empty: all
    std::int64_t since = 0;
    std::size_t limit = 0;
    std::int64_t before = std::numeric_limits<std::int64_t>::max();  ///< a job's number

    static ZResult<JobQuery> Of(const ZOperationsRequestMsg& request);
    /// All but `limit` and `before`.
    bool Fits(const ZOperationMsg& message) const;
};

}  // namespace journal
