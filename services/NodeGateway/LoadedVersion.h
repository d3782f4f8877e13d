#pragma once

#include <optional>
#include <string>

namespace gateway {

/// What a function without parameters that returns a constant text, exported under the plain name `function` by any
/// library of this process, says. None when no loaded library exports it.
std::optional<std::string> LoadedText(const char* function);

}  // namespace gateway
