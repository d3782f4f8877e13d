#pragma once

#include <string>

/// Runs a shell command line and reads what it says, with nothing around it.
bool RunBare(const std::string& line);
