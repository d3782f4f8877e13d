#include "ZCoreConfigs/ZCoreConfigParams.h"

Z_IMPLEMENT(ZLogParams)
Z_IMPLEMENT(ZSideLogParams)
Z_IMPLEMENT(ZTraceLogParams)
Z_IMPLEMENT(ZAuditLogParams)
Z_IMPLEMENT(ZMessageLogParams)
Z_IMPLEMENT(ZReportParams)
Z_IMPLEMENT(ZCommsParams)
Z_IMPLEMENT(ZFileLocationParams)
Z_IMPLEMENT(ZCoreConfigParams)

void ZCoreConfigParams::SetEnvironment(const std::shared_ptr<ZEnvironment>& environment) {
    ZConfig::SetEnvironment(environment);
    m_Files.SetEnvironment(environment);
    m_Comms.SetEnvironment(environment);
}

std::filesystem::path ZCoreConfigParams::UpdatesFolder() const {
    const std::filesystem::path folder = std::filesystem::path(m_Files.m_UpdatesFolder).lexically_normal();
    return folder.has_filename() ? folder : folder.parent_path();
}
