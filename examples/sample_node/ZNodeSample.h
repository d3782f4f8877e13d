#pragma once

#include "NodeBase/ZNode.h"

/// What a graph file may say about a ZNodeSample. Each setting is one row: its range and its meaning are checked, told
/// and documented from there.
class ZNodeSampleCfg : public ZConfig {
    Z_MESSAGE(ZNodeSampleCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_Greeting = "Good morning";
    std::uint32_t m_EverySeconds = 60;

    Z_FIELDS(Z_FIELD(m_Greeting).Means("What the node says."),
             Z_FIELD(m_EverySeconds).In(1, 3600).Means("How often it says so in the log."))
};

/// Says a greeting in the log every now and then, and to whoever asks on "greet".
class ZNodeSample : public ZNode {
    Z_CLASS(ZNodeSample, ZNode)
public:
    explicit ZNodeSample(const ZString& name);
    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    bool OnGraphCreated() override;

private:
    bool OnGreet(const std::shared_ptr<ZMessage>& request);

    ZString m_greeting;
    std::chrono::seconds m_every{0};
};
