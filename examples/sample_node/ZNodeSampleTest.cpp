#include <gtest/gtest.h>

#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZMessages/Messages.h"
#include "ZNodeSample.h"

TEST(SampleNode, GreetsWhoAsksAndNowAndThenInTheLog) {
    const LogCapture log;
    const auto record = ZMakeShared<ZNodeSampleCfg>("sample");
    record->m_Greeting = "Good evening";
    record->m_EverySeconds = 1;
    ZGraph graph(ZMakeShared<ZCoreConfigParams>());
    ASSERT_EQ(ErrorOf(graph.AddNode("ZNodeSample", "sample", record)), "");
    ASSERT_EQ(ErrorOf(graph.AddNode("ProbeNode", "probe", nullptr)), "");
    ASSERT_EQ(ErrorOf(graph.Start()), "");
    const auto probe = cast_shared<ProbeNode>(graph.Node("probe"));
    const auto answer = probe->Ask(ZEndpointType::GraphService, "greet", ZMakeShared<ZGenericRequestMsg>());
    ASSERT_TRUE(cast_shared<ZGenericResponseMsg>(answer));
    EXPECT_EQ(cast_shared<ZGenericResponseMsg>(answer)->m_ErrorText, "Good evening");
    EXPECT_TRUE(log.WaitFor(2, "Good evening"));
}

TEST(SampleNode, RefusesASettingThatBreaksItsRule) {
    const LogCapture log;
    const auto record = ZMakeShared<ZNodeSampleCfg>("sample");
    record->m_EverySeconds = 0;
    ZGraph graph(ZMakeShared<ZCoreConfigParams>());
    EXPECT_FALSE(graph.AddNode("ZNodeSample", "sample", record));
    EXPECT_TRUE(log.Has(4, "sample can't be set up: \"everySeconds\" is 0; it must be a number from 1 to 3600"));
}
