#pragma once

#include "ZCoreConfigs/ZEnvironment.h"
#include "ZMessages/ZFields.h"

/// Base of configuration records.
class ZConfig : public ZMessage {
    Z_CLASS(ZConfig, ZMessage)
public:
    ZConfig() = default;
    explicit ZConfig(const ZString& name) : m_name(name) {}

    void SetEnvironment(const std::shared_ptr<ZEnvironment>& environment) override { m_environment = environment; }
    const std::shared_ptr<ZEnvironment>& Environment() const { return m_environment; }
    /// The name of the node that the record belongs to.
    const ZString& Name() const { return m_name; }

protected:
    /// `path` with the environment's variables replaced; empty when that fails or there is no environment.
    ZString Resolved(const ZString& path) const;

private:
    friend std::vector<struct ZSettingError> CheckSettings(ZConfig& record);

    ZString m_name;
    std::shared_ptr<ZEnvironment> m_environment;
    bool m_bChecked = false;  // its paths are resolved: a dollar sign that is left is one
};
