#include <gmock/gmock.h>

#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZNodeDeviceProps.h"
#include "ZShared/ZPlatform.h"

TEST(DeviceProps, AnswersWithTheIdentityOfTheTimeOfTheQuestion) {
    ZGraph graph(ZMakeShared<ZCoreConfigParams>());
    auto record = ZMakeShared<ZNodeDevicePropsCfg>("props");
    record->m_DeviceType = DEVICE_PALM;
    ASSERT_TRUE(graph.AddNode("ZNodeDeviceProps", "props", record) && graph.AddNode("ProbeNode", "probe", nullptr));
    const auto probe = cast_shared<ProbeNode>(graph.Node("probe"));

    const std::tuple<std::optional<ZIdentity>, ZDeviceModel, bool> cases[]{
        {ZIdentity{"QMB", "SN7", "verdin-imx8mm"}, ZDeviceModel::QMB, false},
        {ZIdentity{"qmb", "SN7", ""}, ZDeviceModel::KiteQM, true},
        {std::nullopt, ZDeviceModel::KiteQM, false},
    };
    for (const auto& [identity, model, warned] : cases) {
        const ZIdentity expected = identity.value_or(ZIdentity{});
        ZPlatformSettings settings;
        settings.identity = identity;
        ZPlatform::Configure(settings);
        const LogCapture log;
        const auto answer = cast_shared<ZDevicePropertiesMsg>(
            probe->Ask(ZEndpointType::GraphService, "deviceProps", ZMakeShared<ZGenericRequestMsg>()));
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->m_DeviceType, DEVICE_PALM);
        EXPECT_EQ(answer->m_DeviceModel, model);
        EXPECT_EQ(ToStdString(answer->m_Model + '|' + answer->m_SerialNumber + '|' + answer->m_Board),
                  expected.model + '|' + expected.serialNumber + '|' + expected.board);
        EXPECT_FALSE(answer->m_HostName.empty());
        EXPECT_EQ(log.Has(3, "The model \"" + expected.model + "\" is none of the known ones"), warned) << log.All();
    }
}
