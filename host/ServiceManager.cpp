#include "ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <algorithm>

ServiceManager::ServiceManager() {
    std::uint64_t microseconds = 0;
    if (::sd_watchdog_enabled(0, &microseconds) > 0) {
        const auto half =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::microseconds(microseconds / 2));
        m_alivePeriod = std::max(half, std::chrono::milliseconds(1));
    }
}

void ServiceManager::Status(const std::string& text) const {
    ::sd_notify(0, ("STATUS=" + text).c_str());
}
void ServiceManager::Ready(const std::string& status) const {
    ::sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}
void ServiceManager::Stopping() const {
    ::sd_notify(0, "STOPPING=1\nSTATUS=Stopping");
}
void ServiceManager::Alive() const {
    if (m_alivePeriod.count() > 0) {
        ::sd_notify(0, "WATCHDOG=1");
    }
}
