#pragma once

#include <string>
#include <string_view>

#include "ZShared/Enumerations.h"

/// Why a step was not done; false in a condition when it was.
struct FileError {
    using Code = ZFrameworkErrorCodes::ZErrorCode;

    /// What requesters are told. ERRCODE_NONE for what the system could not do, a full disk for one: no code means
    /// that.
    Code code = ZFrameworkErrorCodes::ERRCODE_NONE;
    std::string reason;  ///< empty: there is no error

    explicit operator bool() const { return !reason.empty(); }
    /// Whether the request was right and the system failed.
    bool IsOfSystem() const { return code == ZFrameworkErrorCodes::ERRCODE_NONE; }
};

/// The error that the system reports with `number`, an errno.
FileError SystemError(int number);
/// A request that can't be granted as it is.
FileError BadRequest(std::string reason);

/// A text from outside as answers and log lines show it: what is no plain character written as \xHH, a long one with
/// its middle left out.
std::string Shown(std::string_view text);
