#include "SystemNames.h"

#include <grp.h>
#include <pwd.h>

#include <fstream>
#include <vector>

#include "text/Escape.h"

namespace gateway {

namespace {

constexpr std::size_t kRoom = 65536;  // for an entry with its members

}  // namespace

std::string UserName(uid_t user) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(kRoom);
    const bool known = ::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
    return known ? std::string(entry.pw_name) : std::to_string(user);
}

std::optional<gid_t> GroupIdOf(std::string_view name) {
    group entry{};
    group* found = nullptr;
    std::vector<char> buffer(kRoom);
    const bool known = ::getgrnam_r(std::string(name).c_str(), &entry, buffer.data(), buffer.size(), &found) == 0;
    return known && found != nullptr ? std::optional(entry.gr_gid) : std::nullopt;
}

std::string ProgramOf(pid_t process) {
    std::string name;
    if (process > 0) {
        std::ifstream file("/proc/" + std::to_string(process) + "/comm");
        name.assign(std::istreambuf_iterator<char>(file), {});
    }
    if (name.ends_with('\n')) {  // the file's own; the name may have others in it
        name.pop_back();
    }
    return name.empty() ? "unknown" : text::Escaped(name);
}

}  // namespace gateway
