#include "SetupReport.h"

#include <unistd.h>

#include <boost/json.hpp>
#include <charconv>
#include <filesystem>
#include <fstream>

#include "SystemNames.h"
#include "text/Utf8.h"

namespace json = boost::json;

namespace gateway {

namespace {

// More than a device ever has; a machine with thousands of containers' mounts tells the first of them.
constexpr std::size_t kMostMounts = 1000;

json::array Mounts() {
    json::array lines;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; lines.size() < kMostMounts && std::getline(table, line);) {
        lines.emplace_back(line);
    }
    return lines;
}

/// Whether this process reads and writes files whatever their modes say (CAP_DAC_OVERRIDE).
bool PassesModes() {
    constexpr std::string_view kTitle = "CapEff:\t";
    constexpr std::uint64_t kDacOverride = 1U << 1U;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(kTitle)) {
            std::uint64_t capabilities = 0;
            std::from_chars(line.data() + kTitle.size(), line.data() + line.size(), capabilities, 16);
            return (capabilities & kDacOverride) != 0;
        }
    }
    return false;
}

}  // namespace

std::string SetupReport(const std::string& graphFile, const std::string& updatesFolder) {
    std::error_code error;
    const auto mountNamespace = std::filesystem::read_symlink("/proc/self/ns/mnt", error);
    return text::ValidUtf8(json::serialize(json::object{{"version", GATEWAY_VERSION},
                                                        {"graphFile", graphFile},
                                                        {"updatesFolder", updatesFolder},
                                                        {"user", UserName(::geteuid())},
                                                        {"userId", ::geteuid()},
                                                        {"passesModes", PassesModes()},
                                                        {"mountNamespace", mountNamespace.string()},
                                                        {"mounts", Mounts()}}));
}

}  // namespace gateway
