#include "NodeBase/ZNode.h"
#include "ZMessages/Messages.h"

class ZNodeUnrulyCfg : public ZConfig {
    Z_MESSAGE(ZNodeUnrulyCfg, ZConfig)
public:
    ZString m_WantedFile;  ///< refuses its configuration while this is not there
    bool m_bFailAtStart = false;
    bool m_bRefuseToStop = false;
    bool m_bHangAtEnd = false;
    bool m_bAskForEnd = false;  ///< publishes "shutdown" with the next two members
    bool m_bRestart = false;
    bool m_bUnconditional = false;

    Z_FIELDS(Z_FIELD(m_WantedFile), Z_FIELD(m_bFailAtStart), Z_FIELD(m_bRefuseToStop), Z_FIELD(m_bHangAtEnd),
             Z_FIELD(m_bAskForEnd), Z_FIELD(m_bRestart), Z_FIELD(m_bUnconditional))
};
Z_IMPLEMENT(ZNodeUnrulyCfg)

class ZNodeUnruly : public ZNode {
    Z_CLASS(ZNodeUnruly, ZNode)
public:
    using ZNode::ZNode;
    bool OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>& config) override {
        m_config = cast_shared<ZNodeUnrulyCfg>(config);
        return m_config != nullptr && (m_config->m_WantedFile.empty() ||
                                       std::filesystem::exists(std::filesystem::path(m_config->m_WantedFile)));
    }
    bool OnGraphCreated() override {
        const auto end = ZMakeShared<ZShutdownMsg>();
        end->m_bRestart = m_config->m_bRestart;
        end->m_bUnconditional = m_config->m_bUnconditional;
        const auto host = GetEndpoint(ZEndpointType::DeviceRequest, "shutdown", 0);
        return !m_config->m_bFailAtStart && (!m_config->m_bAskForEnd || Publish(host, end));
    }
    bool OnShutdownRequest(bool) override { return !m_config->m_bRefuseToStop; }
    void OnShutdown() override {
        while (m_config->m_bHangAtEnd) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }

private:
    std::shared_ptr<ZNodeUnrulyCfg> m_config;
};
Z_IMPLEMENT(ZNodeUnruly)
