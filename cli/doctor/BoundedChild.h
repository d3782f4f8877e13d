#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace arborctl::doctor {

/// Has `work` make a text in a child process, since it may wait for a disk or a program that never answers. Nothing
/// when it did not end within `limit`, when the user interrupts, or when it could not be started; the child and what it
/// started are ended then. The caller has no other threads.
std::optional<std::string> InChild(const std::function<std::string()>& work, std::chrono::milliseconds limit);

/// What a program printed to its standard output, and how it ended.
struct ProgramEnd {
    int status = -1;  ///< its exit status; negative: it was ended, or could not run
    std::string output;
};
/// Runs a program, found by `arguments[0]`, without a shell, and waits for its end. Only within InChild, which bounds
/// it.
ProgramEnd RunProgram(const std::vector<std::string>& arguments);

}  // namespace arborctl::doctor
