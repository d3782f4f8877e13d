#pragma once

#include <optional>
#include <string>

#include "Page.h"
#include "ZMessages/OperationMessages.h"

namespace journal {

/// A request "operations", read and found good.
struct JobQuery : Page {
    std::string id;  ///< or a beginning of it; empty: all
    std::optional<ZOperationKind> kind;
    std::optional<ZOperationState> state;
    bool onlyOpen = false;
    std::string node;  ///< empty: all

    static ZResult<JobQuery> Of(const ZOperationsRequestMsg& request);
    /// All but `limit` and `before`.
    bool Fits(const ZOperationMsg& message) const;
};

}  // namespace journal
