#include "ZNodeSample.h"

#include "ZMessages/Messages.h"

Z_IMPLEMENT(ZNodeSampleCfg)
Z_IMPLEMENT(ZNodeSample)

ZNodeSample::ZNodeSample(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

bool ZNodeSample::OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>& config) {
    return ReadRecord<ZNodeSampleCfg>(config, [this](const ZNodeSampleCfg& record) {
        m_greeting = record.m_Greeting;
        m_every = std::chrono::seconds(record.m_EverySeconds);
    });
}

bool ZNodeSample::InitMessageMap() {
    return Subscribe(GetEndpoint(ZEndpointType::GraphService, "greet", 0),
                     [this](std::shared_ptr<ZMessage>& request) { return OnGreet(request); });
}

bool ZNodeSample::OnGraphCreated() {
    const auto say = [this](void*) { Z_LOG(2, "%s", m_greeting); };
    return GetTimer("say", say, nullptr)->Start(m_every, true);
}

bool ZNodeSample::OnGreet(const std::shared_ptr<ZMessage>& request) {
    const auto answer = Z_MAKE(ZGenericResponseMsg);
    answer->m_ErrorText = m_greeting;
    return PublishResponse(request, answer);
}
