#include <gmock/gmock.h>

#include <regex>

#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZMessages/Messages.h"
#include "ZShared/ZPlatform.h"

using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

// What the nodes below did; which operation of theirs is to fail ("!": to throw); how often they refuse to stop.
std::mutex g_mutex;
std::string g_told;
std::string g_fault;
std::atomic<int> g_refusals{0};

/// Adds to the story, and returns all of it.
std::string Tell(const std::string& what = "") {
    const std::lock_guard lock(g_mutex);
    return g_told += what.empty() ? what : what + ' ';
}
bool WaitForTold(const std::string& what) {
    return WaitUntil([&] { return Tell().find(what) != std::string::npos; });
}

class StoryNode : public ZNode {
    Z_CLASS(StoryNode, ZNode)
public:
    explicit StoryNode(const ZString& name) : ZNode(name) {
        if (g_fault == "construct") {
            throw std::runtime_error("torn");
        }
    }
    ~StoryNode() override { Tell(ToStdString(Name()) + ":gone"); }
    bool OnInit() override { return Step("init"); }
    bool OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>&) override { return Step("config"); }
    bool OnConnecting() override { return Step("connecting"); }
    bool InitMessageMap() override { return Step("map"); }
    void OnConnected() override { Step("connected"); }
    bool OnGraphCreated() override { return Step("created"); }
    void OnShutdownWarning() override { Step("warning"); }
    bool OnShutdownRequest(bool) override { return Step("asked") && g_refusals-- <= 0; }
    void OnShutdown() override { Step("shutdown"); }
    void OnDisconnect() override { Step("disconnect"); }

    bool Step(const std::string& what) {
        EXPECT_TRUE(Mailbox()->IsMine()) << what;
        Tell(ToStdString(Name()) + ':' + what);
        if (g_fault == what + '!') {
            throw std::runtime_error("torn");
        }
        return g_fault != what;
    }
    /// Runs `work` as a handler does.
    void Post(ZMailbox::Task work) { ASSERT_TRUE(Mailbox()->Post(std::move(work), ZMailbox::Clock::now() + 1min)); }
};
Z_IMPLEMENT(StoryNode)

/// Does what its message says: runs a long command, or works until it is told to stop. Throws when there is no message.
class StoryNode_WorkAction : public ZNodeAction {
    Z_CLASS(StoryNode_WorkAction, ZNodeAction)
public:
    bool ActionThread() override {
        const auto message = ZCAST(FolderUpdateMsg, m_pMessage);
        const std::string work = message ? ToStdString(message->m_FileName) : throw std::runtime_error("torn");
        Tell(work + "-runs");
        while (IsRunning() && work != "command") {
            std::this_thread::sleep_for(1ms);
        }
        return work == "command" ? ZPlatform::ExecuteCommand("sleep 600", {}, {}) : !Tell(work + "-ends").empty();
    }
};
Z_IMPLEMENT(StoryNode_WorkAction)

class Graph : public testing::Test {
protected:
    Graph() {
        g_told.clear();
        g_fault.clear();
        g_refusals = 0;
    }
    std::shared_ptr<StoryNode> Add(const char* name) {
        EXPECT_EQ(ErrorOf(m_graph->AddNode("StoryNode", name, nullptr)), "");
        return ZCAST(StoryNode, m_graph->Node(name));
    }
    static bool Run(StoryNode& node, const char* work) {
        const auto message = Z_MAKE(FolderUpdateMsg);
        message->m_FileName = work;
        return node.RunAction("Work", message) && WaitForTold(std::string(work) + "-runs");
    }
    const std::shared_ptr<ZCoreConfigParams> m_core = Z_MAKE(ZCoreConfigParams);
    std::unique_ptr<ZGraph> m_graph = std::make_unique<ZGraph>(m_core);
    LogCapture m_log;
};

TEST_F(Graph, LeadsItsNodesThroughTheirLivesInOrder) {
    Add("a");
    Add("b");
    EXPECT_EQ(ErrorOf(m_graph->Start()), "");
    EXPECT_EQ(m_graph->Stop(), ZGraphEnd::Agreed);
    // One that is slow to answer is asked again.
    const std::string story =
        std::regex_replace(Tell(), std::regex("a:asked b:asked( [ab]:asked)+"), "a:asked b:asked");
    EXPECT_EQ(story,
              "a:init a:config a:connecting a:map a:connected b:init b:config b:connecting b:map b:connected "
              "a:created b:created a:warning b:warning a:asked b:asked "
              "b:shutdown b:disconnect a:shutdown a:disconnect b:gone a:gone ");
}

TEST_F(Graph, SaysWhichNodeCouldNotBeSetUpAndDropsIt) {
    const std::pair<const char*, const char*> cases[]{
        {"init", "Node \"n\" could not be initialised"},      {"config", "Node \"n\" refused its configuration"},
        {"config!", "Node \"n\" failed while it was set up"}, {"map", "Node \"n\" could not subscribe its keywords"},
        {"construct", "Node \"n\" could not be made: torn"},
    };
    for (const auto& [fault, error] : cases) {
        g_fault = fault;
        EXPECT_EQ(ErrorOf(m_graph->AddNode("StoryNode", "n", nullptr)), error);
        EXPECT_FALSE(m_graph->Node("n"));
    }
    EXPECT_EQ(ErrorOf(m_graph->AddNode("BatteryMsg", "n", nullptr)), "\"BatteryMsg\" is not the name of a node class");
}

TEST_F(Graph, RunsActionsAndStopsTheNewest) {
    const auto node = Add("a");
    EXPECT_TRUE(node->RunAction("Work", nullptr) && !node->RunAction("NoSuch", nullptr));
    EXPECT_TRUE(m_log.WaitFor(4, "There is no action class StoryNode_NoSuchAction")) << m_log.All();
    EXPECT_TRUE(m_log.WaitFor(4, "StoryNode_WorkAction: torn")) << m_log.All();
    EXPECT_TRUE(Run(*node, "first") && Run(*node, "second"));
    EXPECT_TRUE(node->StopAction(false));
    EXPECT_TRUE(WaitForTold("second-ends"));
    EXPECT_THAT(Tell(), testing::Not(HasSubstr("first-ends")));
    // An older action still runs while its node waits for all of them: the end of the graph must reach it.
    EXPECT_TRUE(Run(*node, "third"));
    node->Post([node = node.get()] { Tell("waits"), node->StopAction(true); });
    EXPECT_TRUE(WaitForTold("waits") && WaitForTold("third-ends"));
    EXPECT_EQ(m_graph->Stop([] { return true; }), ZGraphEnd::Forced);
    EXPECT_THAT(Tell(), HasSubstr("first-ends"));
    EXPECT_FALSE(node->RunAction("Work", nullptr));
}

TEST_F(Graph, EndsCommandsThatItsNodesWaitFor) {
    const auto node = Add("a");
    EXPECT_TRUE(Run(*node, "command"));
    std::string output;
    node->Post([&output] { Tell("waits"), ZPlatform::ExecuteCommand("sleep 600", output); });
    node->Post([node = node.get()] { node->Step("late"); });
    EXPECT_TRUE(WaitForTold("waits"));
    EXPECT_EQ(m_graph->Stop([] { return true; }), ZGraphEnd::Forced);
    EXPECT_EQ(output, "The command was ended because its owner stops");
    EXPECT_THAT(Tell(), HasSubstr("a:late a:shutdown"));
}

TEST_F(Graph, WaitsOutARefusalUpToTheGracePeriod) {
    const std::tuple<int, std::uint32_t, ZGraphEnd> cases[]{
        {2, 60, ZGraphEnd::Agreed},
        {1'000'000, 1, ZGraphEnd::Forced},
    };
    for (const auto& [refusals, grace, end] : cases) {
        m_core->m_ShutdownGraceSeconds = grace;
        ZGraph graph(m_core);
        EXPECT_EQ(ErrorOf(graph.AddNode("StoryNode", "a", nullptr)), "");
        g_refusals = refusals;
        EXPECT_EQ(graph.Stop(), end);
        EXPECT_TRUE(m_log.Has(3, "Waiting for a, which is not ready to stop")) << m_log.All();
        EXPECT_EQ(m_log.Has(3, "Stopping although a is not ready"), end == ZGraphEnd::Forced) << m_log.All();
        EXPECT_THAT(Tell(), testing::EndsWith("a:shutdown a:disconnect a:gone "));
    }
}

TEST_F(Graph, CallsTimersOnTheMessageThreadUntilItEnds) {
    const auto node = Add("a");
    g_fault = "tick!";
    const auto timer = node->GetTimer(
        "t", [](void* context) { static_cast<StoryNode*>(context)->Step("tick"); }, node.get());
    EXPECT_TRUE(timer->Start(1ms, true) && WaitForTold("a:tick a:tick a:tick"));
    EXPECT_TRUE(m_log.Has(4, "An exception left a task: torn")) << m_log.All();
    // A node that starts it over and over meets the end of the graph, which stops it.
    std::function<void()> again = [&] { timer->Start(1ms, true), node->InShutdown() ? void() : node->Post(again); };
    node->Post(again);
    EXPECT_EQ(m_graph->Stop(), ZGraphEnd::Agreed);
}

TEST_F(Graph, LeavesNothingBehindAfterAThousandLives) {
    std::size_t before = 0;
    for (int life = 0; life <= 1001; ++life) {
        const std::size_t inUse = ZAllocatorAccount::Usage().inUse;
        before = life == 1 ? inUse : before;  // with what is made once and stays
        ASSERT_TRUE(life == 0 || inUse == before) << life << ": " << inUse << " against " << before;
        ZGraph graph(m_core);
        ASSERT_EQ(ErrorOf(graph.AddNode("ProbeNode", "asks", nullptr)), "");
        ASSERT_EQ(ErrorOf(graph.AddNode("ProbeNode", "answers", nullptr)), "");
        const auto answers = ZCAST(ProbeNode, graph.Node("answers"));
        answers->Listen(ZEndpointType::GraphService, "q", [](const auto& request) { return request; });
        ASSERT_EQ(ErrorOf(graph.Start()), "");
        const auto asks = ZCAST(ProbeNode, graph.Node("asks"));
        EXPECT_TRUE(asks->Ask(ZEndpointType::GraphService, "q", Z_MAKE(ZGenericRequestMsg)));
        EXPECT_GT(ZAllocatorAccount::Usage().inUse, inUse + 2 * sizeof(ProbeNode));
        EXPECT_EQ(graph.Stop(), ZGraphEnd::Agreed);
    }
    EXPECT_GT(ZAllocatorAccount::Usage().peak, before + 2 * sizeof(ProbeNode));
}

}  // namespace
