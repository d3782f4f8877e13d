#pragma once

#include "GraphFile.h"

/// What a graph that is right still lacks on a real instrument: simulated identities and mounts, files and devices that
/// are not there, a policy that is off, nodes without which something is missing. Each as "FILE:LINE: PLACE: what".
/// `records` are the nodes' records, in their order; `read` is what the file was read with.
std::vector<std::string> NotesOnSetup(const GraphFile& file, const std::vector<std::shared_ptr<ZConfig>>& records,
                                      const GraphErrors& read);
