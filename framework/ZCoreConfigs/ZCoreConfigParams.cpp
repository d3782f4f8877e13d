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

void ZFileLocationParams::ResolvePaths() {
    if (Environment()) {
        m_UpdatesFolder = Resolved(m_UpdatesFolder);
    }
}

void ZCoreConfigParams::SetEnvironment(const std::shared_ptr<ZEnvironment>& environment) {
    ZConfig::SetEnvironment(environment);
    m_Files.SetEnvironment(environment);
}

void ZCoreConfigParams::ResolvePaths() {
    m_Files.ResolvePaths();
}
