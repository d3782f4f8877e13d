#include "ZCoreConfigs/ZConfig.h"

Z_IMPLEMENT(ZConfig)

ZString ZConfig::Resolved(const ZString& path) const {
    if (path.empty() || !m_environment) {
        return {};
    }
    std::filesystem::path out;
    m_environment->ResolveEnvVarsInPath(std::filesystem::path(path), out);
    return ToZString(out.string());
}
