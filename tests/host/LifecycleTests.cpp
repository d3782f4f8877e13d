#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <future>

#include "ArbordProcess.h"
#include "Heartbeat.h"
#include "NodeBase/ZGraph.h"

using testing::HasSubstr;

TEST(Arbord, TellsTheServiceManagerAndEndsOnSigterm) {
    const TemporaryFolder folder;
    const auto graph = folder.Write("graph.json", R"({ "core": { "updatesFolder": "$ARBOR_TEST/updates" },
        "log": { "file": "$ARBOR_TEST/logs/arbord.log" },
        "libraries": [ "libNodeStorage.so", "libNodeDeviceProps.so" ],
        "nodes": [ { "name": "Storage", "class": "ZNodeStorage" }, { "name": "Props", "class": "ZNodeDeviceProps" } ] })");
    ::setenv("WATCHDOG_USEC", "100000", 1);
    ArbordProcess arbord({"--graph", graph.string()});
    ::unsetenv("WATCHDOG_USEC");
    ASSERT_TRUE(arbord.WaitForNotification("READY=1\nSTATUS=2 nodes run")) << arbord.Output();
    for (int sign = 0; sign < 3; ++sign) {
        EXPECT_TRUE(arbord.WaitForNotification("WATCHDOG=1"));
    }
    arbord.Signal(SIGTERM);
    EXPECT_TRUE(arbord.WaitForNotification("STOPPING=1\nSTATUS=Stopping"));
    EXPECT_EQ(arbord.WaitForExit(), 0) << arbord.Output();
    for (const char* line : {"Graph is running\n", "Terminated: the graph is asked to stop\n", "Graph was stopped\n"}) {
        EXPECT_THAT(arbord.Output(), HasSubstr(line));
    }
}

TEST(Arbord, WaitsForARefusingNodeUntilItIsTold) {
    const struct {
        std::string config;
        std::string grace;
        // What is waited for on its output, each followed by a signal.
        std::vector<const char*> signalAfter;
        int exit;
        const char* last;
    } cases[] = {
        {R"("refuseToStop": true)", "1", {"Graph is running"}, 0, "without every node's agreement"},
        {R"("refuseToStop": true)", "600", {"Graph is running", "Waiting for Unruly"}, 0, "the graph stops at once"},
        {R"("hangAtEnd": true)", "600", {"is running", "asked to stop", "stops at once"}, 128 + SIGINT, "at once"},
        {R"("askForEnd": true)", "600", {}, 0, "Graph was stopped\n"},
        {R"("askForEnd": true, "restart": true)", "600", {}, 75, "The graph is asked to restart in 0 s\n"},
        {R"("askForEnd": true, "refuseToStop": true, "unconditional": true)", "600", {}, 0, "whatever its nodes do"},
        {R"("failAtStart": true)", "600", {}, 1, "could not be started: Node \"Unruly\" failed when the graph was"},
    };
    for (const auto& [config, grace, signalAfter, exit, last] : cases) {
        SCOPED_TRACE(config);
        const TemporaryFolder folder;
        std::string text = R"({ "libraries": [ "libHostTestNodes.so" ], "core": { "shutdownGraceSeconds": )";
        text.append(grace).append(R"( }, "nodes": [ { "name": "Unruly", "class": "ZNodeUnruly", "config": {)");
        const auto graph = folder.Write("graph.json", text.append(config).append("} } ] }"));
        ArbordProcess arbord({"--graph", graph.string()});
        for (const char* said : signalAfter) {
            ASSERT_TRUE(arbord.WaitForOutput(said)) << arbord.Output();
            arbord.Signal(SIGINT);
        }
        EXPECT_EQ(arbord.WaitForExit(), exit) << arbord.Output();
        EXPECT_THAT(arbord.Output(), HasSubstr(last));
    }
}

TEST(Arbord, RunsWithoutANodeThatIsNotRequiredUntilThatCanStart) {
    const TemporaryFolder folder;
    const std::string flag = (folder / "flag").string();
    const auto graph = [&](const char* required) {
        return folder.Write("graph.json", R"({ "libraries": [ "libHostTestNodes.so", "libNodeDeviceProps.so" ],
            "nodes": [ { "name": "Unruly", "class": "ZNodeUnruly", "required": )" +
                                              std::string(required) + R"(, "config": { "wantedFile": ")" + flag +
                                              R"(" } }, { "name": "Props", "class": "ZNodeDeviceProps" } ] })");
    };
    {
        ArbordProcess arbord({"--graph", graph("true").string()});
        EXPECT_EQ(arbord.WaitForExit(), 1) << arbord.Output();
    }
    ArbordProcess arbord({"--graph", graph("false").string()});
    ASSERT_TRUE(arbord.WaitForNotification("READY=1\nSTATUS=1 node runs, without Unruly")) << arbord.Output();
    EXPECT_THAT(arbord.Output(), HasSubstr("Node \"Unruly\" refused its configuration; the graph runs without it"));
    folder.Write("flag", "");
    ASSERT_TRUE(arbord.WaitForNotification("READY=1\nSTATUS=2 nodes run")) << arbord.Output();
    EXPECT_THAT(arbord.Output(), HasSubstr("Node \"Unruly\", which was left out, runs now"));
    arbord.Signal(SIGTERM);
    EXPECT_EQ(arbord.WaitForExit(), 0) << arbord.Output();
}

TEST(Arbord, EndsBeforeItTouchesWhatAnotherOneWorksOn) {
    const TemporaryFolder folder;
    const auto upload = folder / "state/updates/upload.pkg";
    const auto graph = folder.Write("graph.json", R"({ "core": { "updatesFolder": ")" + upload.parent_path().string() +
                                                      R"(" },
        "libraries": [ "libNodeArborInstall.so" ],
        "nodes": [ { "name": "Update", "class": "ZNodeArborInstall",
                     "config": {} } ] })");
    ArbordProcess first({"--graph", graph.string()});
    ASSERT_TRUE(first.WaitForOutput("Graph is running")) << first.Output();
    std::ofstream(upload) << "on its way";
    ArbordProcess second({"--graph", graph.string()});
    EXPECT_EQ(second.WaitForExit(), 1);
    EXPECT_THAT(second.Output(), HasSubstr("arbord (process " + std::to_string(first.Id()) + ") runs a graph on "));
    EXPECT_TRUE(std::filesystem::exists(upload));
    first.Signal(SIGKILL);
    first.WaitForExit();
    ArbordProcess third({"--graph", graph.string()});
    EXPECT_TRUE(third.WaitForOutput("Graph is running")) << third.Output();
    EXPECT_FALSE(std::filesystem::exists(upload)) << "emptied at the start, as always";
}

TEST(Arbord, EndsAtTheThirdSignalThoughItsOutputBlocks) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread checker waits for the output itself before it lets a process end";
#endif
    const TemporaryFolder folder;
    const auto pipe = folder / "output";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    const ZFileDescriptor nobodyReads(::open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    const auto graph = folder.Write("graph.json", R"({ "libraries": [ "libNodeDeviceProps.so" ],
        "nodes": [ { "name": "Props", "class": "ZNodeDeviceProps" } ] })");
    ArbordProcess arbord({"--graph", graph.string()}, pipe);
    ASSERT_TRUE(arbord.WaitForNotification("READY=1\nSTATUS=1 node runs"));
    while (::write(nobodyReads.Get(), "x", 1) == 1) {
    }
    EXPECT_TRUE(arbord.SignalAndWait(SIGTERM));
    EXPECT_TRUE(arbord.SignalAndWait(SIGTERM));
    arbord.Signal(SIGTERM);
    EXPECT_EQ(arbord.WaitForExit(), 128 + SIGTERM);
}

TEST(Arbord, AnswersACommandLineWithoutAGraph) {
    const std::tuple<std::vector<std::string>, int, const char*> cases[]{
        {{"--version"}, 0, "arbord 3."}, {{}, 2, "--graph is required"}, {{"--graph", "x", "--typo"}, 2, "--typo"}};
    for (const auto& [arguments, exit, output] : cases) {
        ArbordProcess arbord(arguments);
        EXPECT_EQ(arbord.WaitForExit(), exit) << arbord.Output();
        EXPECT_THAT(arbord.Output(), HasSubstr(output));
    }
}

TEST(NodeLibraries, AreGoneOnceTheyAreClosed) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread checker ends a process that unloads a library which it has a suppression for";
#endif
    const std::filesystem::path folder = std::filesystem::path(ARBORD).parent_path().parent_path() / "lib";
    ZShared::ZFactory& factory = ZShared::ZFactory::Instance();
    for (const std::string name :
         {"NodeArborInstall", "NodeStorage", "NodeDeviceProps", "NodeFileIO", "NodePeer", "NodeGateway"}) {
        SCOPED_TRACE(name);
        const std::string library = "lib" + name + ".so";
        for (int time = 0; time < 2; ++time) {
            void* handle = ::dlopen((folder / library).c_str(), RTLD_NOW | RTLD_LOCAL);
            ASSERT_NE(handle, nullptr) << ::dlerror();
            {
                ZGraph graph(ZMakeShared<ZCoreConfigParams>());
                EXPECT_TRUE(cast_shared<ZNode>(factory.CreateShared('Z' + name, "n")));
                EXPECT_EQ(graph.AddNode('Z' + name, "n", cast_shared<ZConfig>(factory.CreateShared('Z' + name + "Cfg")))
                              .has_value(),
                          name != "NodePeer")
                    << "a link needs settings";
            }
            EXPECT_EQ(::dlclose(handle), 0);
            EXPECT_EQ(ReadText("/proc/self/maps").find(library), std::string::npos);
            EXPECT_FALSE(factory.CreateShared('Z' + name, "n"));
        }
    }
}

TEST(Heartbeat, NamesTheNodeWhoseHandlerDoesNotReturn) {
    ZGraph graph(ZMakeShared<ZCoreConfigParams>());
    ASSERT_TRUE(graph.AddNode("ProbeNode", "idle", nullptr) && graph.AddNode("ProbeNode", "busy", nullptr));
    Heartbeat heartbeat(std::chrono::seconds(3));
    const auto silent = [&] { return heartbeat.SilentNode({graph.Node("idle"), graph.Node("busy")}); };
    EXPECT_TRUE(silent().empty());

    std::promise<void> release;
    const auto released = release.get_future().share();
    graph.Node("busy")->CallOnMessageThread([released] { released.wait(); }, ZMailbox::Clock::now());
    EXPECT_TRUE(WaitUntil([&] { return silent() == "busy"; }));
    release.set_value();
    EXPECT_TRUE(WaitUntil([&] { return silent().empty(); })) << "it works again";
}

TEST(Arbord, EndsBeforeItTouchesAnArchiveThatAnotherOneWorksOn) {
    const TemporaryFolder folder;
    const auto leftover = folder / "data/Packages/leftover";
    const auto graph = [&](const std::string& name, const std::string& core) {
        return folder.Write(name, R"({ "platform": { "mounts": { "/dev/data": ")" + (folder / "data").string() +
                                      R"(" } }, "libraries": [ "libNodeArborInstall.so" ], "core": {)" + core + R"(},
        "nodes": [ { "name": "Update", "class": "ZNodeArborInstall",
                     "config": { "ArchiveDevice": "/dev/data", "ArchiveDir": "Packages" } } ] })");
    };
    std::filesystem::create_directory(folder / "data");
    ArbordProcess first({"--graph", graph("first.json", "").string()});
    ASSERT_TRUE(first.WaitForOutput("Graph is running")) << first.Output();
    std::filesystem::create_directories(leftover);
    const std::string updates = R"( "updatesFolder": ")" + (folder / "updates").string() + '"';
    ArbordProcess second({"--graph", graph("second.json", updates).string()});
    EXPECT_EQ(second.WaitForExit(), 1) << second.Output();
    EXPECT_THAT(second.Output(), HasSubstr("(process " + std::to_string(first.Id()) + ") runs a graph on " +
                                           (folder / "data").string() + " already"));
    EXPECT_TRUE(std::filesystem::exists(leftover));
    for (const char* const lock : {".updates.lock", "data/.arbor.lock"}) {
        EXPECT_EQ(std::filesystem::status(folder / lock).permissions(), std::filesystem::perms(0600))
            << lock << ": who may open it may hold it, and keep the host from starting";
    }
}
