#pragma once

#include <boost/system/result.hpp>
#include <concepts>
#include <string>
#include <string_view>

#include "ZShared/Enumerations.h"

/// Why something could not be done: a code for programs and a text for people, which names the thing and the system's
/// reason ("/etc/arbor/key.json: Permission denied").
struct ZError {
    ZFrameworkErrorCodes::ZErrorCode code = ZFrameworkErrorCodes::ERRCODE_NONE;
    std::string text;

    ZError() = default;
    /// Of texts only: a path is a value of its own in a result.
    template <std::convertible_to<std::string_view> Text>  // NOLINTNEXTLINE(bugprone-forwarding-reference-overload)
    explicit ZError(Text&& why, ZFrameworkErrorCodes::ZErrorCode what = ZFrameworkErrorCodes::ERRCODE_NONE)
        : code(what), text(std::forward<Text>(why)) {}

    /// "`thing`: " and what the system says about `errorNumber`, an errno.
    static ZError OfSystem(const std::string& thing, int errorNumber);
    /// The same error, told of `thing`.
    ZError In(const std::string& thing) const { return ZError(thing + ": " + text, code); }
};

/// A value, or why there is none. The error is for `error()`; `value()` is for those that have asked `has_value()`.
template <typename T>
using ZResult = boost::system::result<T, ZError>;

/// For value() of a result that has none: a fault of the program.
[[noreturn]] void throw_exception_from_error(const ZError& error, const boost::source_location& place);
