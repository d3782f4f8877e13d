#pragma once

#include <boost/system/result.hpp>
#include <string>
#include <utility>

namespace arborctl {

/// What the program's exit status says; documented in --help.
enum class ExitCode {
    kDone = 0,
    kRefused = 1,       ///< The device answered, and its answer is no.
    kUsage = 2,         ///< The command line or a file it names is at fault.
    kUnreachable = 3,   ///< The device could not be reached, broke off, or did not answer in time.
    kInterrupted = 130  ///< Ended by Ctrl-C.
};

/// Why a command ended without its result. `text` is one sentence for a person, already free of control characters.
/// (A constructor, so that an exit code alone is no failure: a result could not tell the two apart.)
struct Failure {
    Failure() = default;
    Failure(ExitCode exitCode, std::string sentence) : code(exitCode), text(std::move(sentence)) {}

    ExitCode code = ExitCode::kRefused;
    std::string text;
    int httpStatus = 0;       ///< Of the device's answer; 0 when the failure is none.
    bool timedOut = false;    ///< The device was reached, and did not answer within the limit.
    bool unanswered = false;  ///< The request was sent, and what the device did about it is not known.
};

template <typename T>
using Result = boost::system::result<T, Failure>;

inline Failure Refused(std::string text) {
    return {ExitCode::kRefused, std::move(text)};
}
inline Failure UsageFailure(std::string text) {
    return {ExitCode::kUsage, std::move(text)};
}
inline Failure Unreachable(std::string text) {
    return {ExitCode::kUnreachable, std::move(text)};
}
inline Failure InterruptedByUser() {
    return {ExitCode::kInterrupted, "interrupted"};
}

}  // namespace arborctl
