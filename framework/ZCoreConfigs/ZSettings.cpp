#include "ZCoreConfigs/ZSettings.h"

namespace {

std::string Complaint(const char* key, const std::string& value, const std::string& wanted) {
    return '"' + std::string(key) + "\" is " + value + "; it must be " + wanted;
}

}  // namespace

ZBadSetting::ZBadSetting(const char* key, const ZString& value, const std::string& wanted)
    : std::runtime_error(Complaint(key, '"' + ToStdString(value) + '"', wanted)) {}

ZBadSetting::ZBadSetting(const char* key, std::uint32_t value, const std::string& wanted)
    : std::runtime_error(Complaint(key, std::to_string(value), wanted)) {}

void CheckRange(const char* key, std::uint32_t value, std::uint32_t least, std::uint32_t most) {
    if (value < least || value > most) {
        throw ZBadSetting(key, value, "a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
}

std::filesystem::path AbsolutePath(const char* key, const ZString& value, const ZEnvironment* environment) {
    std::filesystem::path path(value);
    if (environment != nullptr) {
        environment->ResolveEnvVarsInPath(std::filesystem::path(value), path);
    }
    if (!path.is_absolute()) {
        throw ZBadSetting(key, value, "an absolute path whose variables are set");
    }
    path = path.lexically_normal();
    return path.has_filename() ? path : path.parent_path();
}
