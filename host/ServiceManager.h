#pragma once

#include <chrono>
#include <string>

/// What the service manager that started this process wants to know. Without one every function does nothing.
class ServiceManager {
public:
    ServiceManager();

    void Status(const std::string& text) const;
    void Ready(const std::string& status) const;
    void Stopping() const;
    void Alive() const;

    /// How often Alive is due; 0 when nobody waits for it. Half of what the service manager allows.
    std::chrono::milliseconds AlivePeriod() const { return m_alivePeriod; }

private:
    std::chrono::milliseconds m_alivePeriod{0};
};
