#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

// The names that the system has for numbers, for people to read.

namespace gateway {

/// The user's name; the number of one whom the system does not know.
std::string UserName(uid_t user);
/// The number of the group of that name; none when there is no such group.
std::optional<gid_t> GroupIdOf(std::string_view name);
/// What the process calls itself, without characters that could not be shown; "unknown" when it has gone.
std::string ProgramOf(pid_t process);

}  // namespace gateway
