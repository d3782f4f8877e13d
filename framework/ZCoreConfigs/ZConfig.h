#pragma once

#include <vector>

#include "ZCoreConfigs/ZEnvironment.h"
#include "ZMessages/ZFields.h"

/// What is wrong with one setting: its key, and a text that names key, value and what is wanted.
struct ZSettingError {
    std::string key;
    std::string text;
};

/// Base of configuration records.
class ZConfig : public ZMessage {
    Z_CLASS(ZConfig, ZMessage)
public:
    ZConfig() = default;
    explicit ZConfig(const ZString& name) : m_name(name) {}

    void SetEnvironment(const std::shared_ptr<ZEnvironment>& environment) override { m_environment = environment; }
    const std::shared_ptr<ZEnvironment>& Environment() const { return m_environment; }
    /// What is wrong with values that all fit their rows, but not each other.
    virtual std::vector<ZSettingError> Conflicts() const { return {}; }
    /// The name of the node that the record belongs to.
    const ZString& Name() const { return m_name; }

protected:
    /// `path` with the environment's variables replaced; empty when that fails or there is no environment.
    ZString Resolved(const ZString& path) const;

private:
    friend std::vector<ZSettingError> CheckSettings(ZConfig& record);

    ZString m_name;
    std::shared_ptr<ZEnvironment> m_environment;
    bool m_bChecked = false;  // its paths are resolved: a dollar sign that is left is one
};
