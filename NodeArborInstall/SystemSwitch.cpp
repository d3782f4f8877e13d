#include <iostream>

#include "ZNodeArborInstall.h"

bool ZNodeArborInstall::OnSwitchPartition(std::shared_ptr<ZMessage>&) {
    const std::string command = ToStdString(Config().m_SwitchPartitionCmd);
    if (!command.empty()) {
        RunCommand(command);
    }
    return true;
}

bool ZNodeArborInstall::OnSwitchDevice(std::shared_ptr<ZMessage>&) {
    const std::string command = ToStdString(Config().m_RunRecoveryCmd);
    if (command.empty() || !RunCommand(command)) {
        return true;
    }
    const auto shutdown = Z_MAKE(ZShutdownMsg);
    shutdown->m_bRestart = false;
    shutdown->m_bUnconditional = true;
    shutdown->m_DelaySeconds = 0;
    const ZCommEndpoint everybody(ZNodeUID(), ZEndpointType::DeviceRequest, "shutdown");
    if (!Publish(everybody, shutdown, nullptr, true, false)) {
        std::cout << "Shutdown failed" << std::endl;
    }
    return true;
}
