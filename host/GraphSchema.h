#pragma once

#include <string>

/// The JSON Schema (draft 7) of graph files, made from the rows of the settings: of the host's own sections, and of the
/// records of all node classes that are loaded now.
std::string GraphSchema();
