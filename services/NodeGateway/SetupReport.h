#pragma once

#include <string>

namespace gateway {

/// How this host runs, for whoever looks for what is wrong with a set-up: the graph file, the updates folder (empty:
/// none), the user, its mount namespace, and the mounts as the host sees them (lines of the kernel's table, which may
/// differ from those that others see). As JSON; nothing in it waits for a drive.
std::string SetupReport(const std::string& graphFile, const std::string& updatesFolder);

}  // namespace gateway
