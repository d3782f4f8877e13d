// The journal in a graph: what it keeps, what it answers, and what it makes of an earlier life's jobs.

#include <gmock/gmock.h>

#include "JournalFiles.h"
#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZMessages/OperationMessages.h"
#include "ZNodeJournal.h"

namespace fs = std::filesystem;
using namespace testing;

namespace {

using enum ZOperationState;

/// A graph with the journal and a node that has jobs.
class JournalNode : public Test {
protected:
    bool Start() {
        record->m_DatabaseFile = ToZString(file.string());
        graph = std::make_unique<ZGraph>(ZMakeShared<ZCoreConfigParams>());
        const auto started = graph->AddNode("ZNodeJournal", "Journal", record) &&
                             graph->AddNode("ProbeNode", "worker", nullptr) && graph->Start();
        worker = cast_shared<ProbeNode>(graph->Node("worker"));
        return started;
    }
    /// What a killed host would do: no job is settled.
    void Restart() {
        graph.reset();
        ASSERT_TRUE(Start()) << log.All();
    }

    std::shared_ptr<ZOperation> Begin(ZOperationKind kind = ZOperationKind::Check, const char* name = "a.pkg") {
        return worker->BeginOperation({.kind = kind, .file = name});
    }
    ZString Settled(ZOperationKind kind = ZOperationKind::Check, const char* name = "a.pkg") {
        const auto job = Begin(kind, name);
        job->Succeed();
        return job->Id();
    }
    /// As a node does that has such a job.
    void TellJob(const ZString& id, ZOperationState state = Queued) {
        const auto message = ZMakeShared<ZOperationMsg>();
        message->m_Id = id;
        message->m_State = state;
        worker->Tell("operation", message);
    }
    std::shared_ptr<ZOperationsMsg> Ask(const std::function<void(ZOperationsRequestMsg&)>& fill) {
        const auto request = ZMakeShared<ZOperationsRequestMsg>();
        fill(*request);
        auto answer = cast_shared<ZOperationsMsg>(worker->Ask(ZEndpointType::GraphService, "operations", request));
        return answer ? answer : ZMakeShared<ZOperationsMsg>();
    }
    std::shared_ptr<ZOperationMsg> Find(const ZString& id) {
        const auto answer = Ask([&](auto& request) { request.m_Id = id; });
        return answer->m_Operations.size() == 1 ? answer->m_Operations.front() : ZMakeShared<ZOperationMsg>();
    }
    /// The files of all jobs that are chosen, in order.
    std::string Files(const std::function<void(ZOperationsRequestMsg&)>& fill) {
        std::string files;
        const auto answer = Ask(fill);
        for (const auto& job : answer->m_Operations) {
            files += (files.empty() ? "" : " ") + ToStdString(job->m_File);
        }
        return files;
    }

    TemporaryFolder folder;
    const fs::path file = folder / "state/journal.sqlite";
    std::shared_ptr<ZNodeJournalCfg> record = ZMakeShared<ZNodeJournalCfg>("Journal");
    std::unique_ptr<ZGraph> graph;
    std::shared_ptr<ProbeNode> worker;
    LogCapture log;
};

TEST_F(JournalNode, FindsJobsByAllThatIsKnownOfThem) {
    ASSERT_TRUE(Start());
    Settled(ZOperationKind::Check, "1");
    const auto failed = Begin(ZOperationKind::Install, "2");
    failed->Fail("the signer is unknown", ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE);
    const auto running = Begin(ZOperationKind::Install, "3");
    running->Start();
    const auto waiting = Begin(ZOperationKind::Check, "4");
    const std::tuple<const char*, std::function<void(ZOperationsRequestMsg&)>, const char*> rows[]{
        {"all", [](auto&) {}, "4 3 2 1"},
        {"kind", [](auto& request) { request.m_Kind = "Install"; }, "3 2"},
        {"state", [](auto& request) { request.m_State = "Failed"; }, "2"},
        {"open", [](auto& request) { request.m_State = "Open"; }, "4 3"},
        {"both", [](auto& request) { request.m_State = "Queued", request.m_Kind = "Check"; }, "4"},
        {"another's", [](auto& request) { request.m_Node = "Other"; }, ""},
        {"its node's", [](auto& request) { request.m_Node = "worker", request.m_State = "Succeeded"; }, "1"},
        {"later than now", [](auto& request) { request.m_Since = MillisecondsNow() + 60'000; }, ""},
        {"lately", [](auto& request) { request.m_Since = MillisecondsNow() - 60'000; }, "4 3 2 1"},
        {"id", [&](auto& request) { request.m_Id = failed->Id(); }, "2"},
        {"id's beginning", [&](auto& request) { request.m_Id = running->Id().substr(0, 12); }, "3"},
        {"id, of another kind", [&](auto& request) { request.m_Id = failed->Id(), request.m_Kind = "Check"; }, ""},
    };
    for (const bool again : {false, true}) {
        for (const auto& [name, request, files] : rows) {
            EXPECT_EQ(Files(request), files) << name;
        }
        if (!again) {  // from the disk, what is open and what is not
            ZProcessId self = *FindProcess(::getpid());
            running->SetProcess(self);
            waiting->SetProcess(self);
            running->LeaveOpen();
            waiting->LeaveOpen();
            Restart();
        }
    }
    const auto found = Find(failed->Id());
    EXPECT_EQ(found->m_Reason, "the signer is unknown");
    EXPECT_EQ(found->m_ErrorCode, ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE);
    EXPECT_EQ(found->m_CreatedAt, failed->Get()->m_CreatedAt);
    EXPECT_EQ(Find(running->Id())->m_ProcessStart, FindProcess(::getpid())->start);
}

TEST_F(JournalNode, RefusesQuestionsThatMeanNothing) {
    ASSERT_TRUE(Start());
    for (const char* id : {"abcd0000", "abcd0001", "abcd00010"}) {
        TellJob(id);
    }
    const std::pair<std::function<void(ZOperationsRequestMsg&)>, const char*> rows[]{
        {[](auto& request) { request.m_Kind = "install"; }, "ERRCODE_INVALID_REQUEST \"kind\" is one of Check, Scan, "},
        {[](auto& request) { request.m_State = "Done"; },
         "ERRCODE_INVALID_REQUEST \"state\" is Open, or one of Queued"},
        {[](auto& request) { request.m_Before = "7x"; }, "ERRCODE_INVALID_REQUEST \"before\" is the \"next\" of"},
        {[](auto& request) { request.m_Before = "-1"; }, "ERRCODE_INVALID_REQUEST \"before\" is the \"next\" of"},
        {[](auto& request) { request.m_Id = "abc"; },
         "ERRCODE_INVALID_REQUEST An id, or its beginning, has at least 4"},
        {[](auto& request) { request.m_Id = "abcd"; }, "ERRCODE_INVALID_REQUEST Several jobs have ids that begin with"},
        {[](auto& request) { request.m_Id = "abcd1"; }, "ERRCODE_NOT_FOUND There is no job with the id \"abcd1\""},
        {[](auto& request) { request.m_Id = "%' OR 1=1"; }, "ERRCODE_NOT_FOUND There is no job with the id"},
    };
    for (const auto& [request, said] : rows) {
        const auto answer = Ask(request);
        EXPECT_FALSE(answer->m_bSuccess);
        EXPECT_THAT(std::string(magic_enum::enum_name(answer->m_ErrorCode)) + ' ' + ToStdString(answer->m_ErrorText),
                    StartsWith(said));
        EXPECT_THAT(answer->m_Operations, IsEmpty());
    }
    EXPECT_EQ(Find("abcd0001")->m_Id, "abcd0001") << "the whole of one, the beginning of another";
}

TEST_F(JournalNode, TurnsPagesThatStayTheSameWhileJobsArrive) {
    ASSERT_TRUE(Start());
    std::vector<ZString> begun;
    std::vector<std::shared_ptr<ZOperation>> open;
    for (int count = 0; count < 25; ++count) {
        if (count % 3 == 0) {
            open.push_back(Begin());
            begun.push_back(open.back()->Id());
        } else {
            begun.push_back(Settled());
        }
    }
    std::vector<ZString> seen;
    ZString next;
    do {
        const auto page = Ask([&](auto& request) { request.m_Limit = 10, request.m_Before = next; });
        for (const auto& job : page->m_Operations) {
            seen.push_back(job->m_Id);
        }
        next = page->m_Next;
        Settled();  // a new one, and an older one ends, between two pages
        open.back()->Succeed();
        open.pop_back();
    } while (!next.empty());
    std::ranges::reverse(begun);
    EXPECT_EQ(seen, begun);
}

TEST_F(JournalNode, KeepsProgressInMemoryAndTellsIt) {
    ASSERT_TRUE(Start());
    const auto job = Begin(ZOperationKind::Install);
    job->Start();
    Find(job->Id());
    const fs::path wal = file.string() + "-wal";
    const auto before = std::pair(fs::file_size(wal), fs::last_write_time(wal));
    for (int percent = 0; percent <= 200; ++percent) {
        job->Tell("Install", "writing", percent / 2);
    }
    const auto found = Find(job->Id());
    EXPECT_EQ(found->m_Percent, 100);
    EXPECT_EQ(found->m_Message, "writing");
    EXPECT_EQ(std::pair(fs::file_size(wal), fs::last_write_time(wal)), before) << "progress has touched the disk";
    job->Fail("no room");
    EXPECT_EQ(Find(job->Id())->m_State, Failed);
    EXPECT_NE(fs::last_write_time(wal), before.second);
}

TEST_F(JournalNode, TellsHowLongAJobHasTakenByAClockThatNobodySets) {
    ASSERT_TRUE(Start());
    const auto job = Begin(ZOperationKind::Install);
    EXPECT_EQ(Find(job->Id())->m_Took, 0);
    const std::int64_t before = MillisecondsSinceBoot();
    job->Start();
    const auto toldSo = [&](std::int64_t least) { return Find(job->Id())->m_Took >= least; };
    ASSERT_TRUE(WaitUntil([&] { return toldSo(20); })) << "it grows while nothing is told";
    job->SetProcess({4321, 99});
    job->LeaveOpen();
    Restart();  // the host; the boot is the same
    const std::int64_t sofar = Find(job->Id())->m_Took;
    EXPECT_GE(sofar, 20);
    worker->AdoptOperation(*Find(job->Id()))->Succeed();
    const std::int64_t took = Find(job->Id())->m_Took;
    EXPECT_GE(took, sofar);
    EXPECT_LE(took, MillisecondsSinceBoot() - before);
    const auto lost = Begin(ZOperationKind::Install);
    lost->Start();
    ASSERT_TRUE(WaitUntil([&] { return Find(lost->Id())->m_Took > 0; }));
    lost->Lose("nothing can watch it");
    EXPECT_EQ(Find(lost->Id())->m_Took, 0);

    const auto earlier = ZMakeShared<ZOperationMsg>();  // it runs since another boot, which had another clock
    earlier->m_Id = "abcd0001";
    earlier->m_State = Running;
    earlier->m_BootId = "another";
    earlier->m_StartedSinceBoot = 1;
    earlier->m_Took = 7;
    worker->Tell("operation", earlier);
    EXPECT_EQ(Find(earlier->m_Id)->m_Took, 0);
    worker->AdoptOperation(*Find(earlier->m_Id))->Succeed();
    EXPECT_EQ(Find(earlier->m_Id)->m_Took, 0);
}

TEST_F(JournalNode, SettlesWhatAnEarlierLifeLeftOpen) {
    ASSERT_TRUE(Start());
    const auto queued = Begin();
    const auto running = Begin();
    running->Start();
    const auto alive = Begin(ZOperationKind::Install);
    alive->Start();
    alive->SetProcess({4321, 99});
    for (const auto& job : {queued, running, alive}) {
        Find(job->Id());  // all is taken
        job->LeaveOpen();
    }
    const std::int64_t restart = MillisecondsNow();
    Restart();
    const auto lost = Find(running->Id());
    EXPECT_EQ(lost->m_State, Lost);
    EXPECT_EQ(lost->m_Reason, "the host ended while it ran");
    EXPECT_GE(lost->m_EndedAt, restart);
    EXPECT_EQ(lost->m_Took, 0) << "nobody knows how long it ran";
    EXPECT_EQ(Find(queued->Id())->m_Reason, "the host ended before it began");
    EXPECT_EQ(Find(alive->Id())->m_State, Running);

    // The node finds it, goes on with it, and tells its end.
    const auto adopted = worker->AdoptOperation(*Find(alive->Id()));
    adopted->Tell("", "writing", 44);
    EXPECT_EQ(Find(alive->Id())->m_Percent, 44);
    adopted->Succeed();
    // Nothing turns an end into another, nor wakes what has ended.
    const auto late = [&](const ZString& id, ZOperationState state) {
        TellJob(id, state);
        return Find(id)->m_State;
    };
    for (const bool again : {false, true}) {
        EXPECT_EQ(late(alive->Id(), Failed), Succeeded);
        EXPECT_EQ(late(alive->Id(), Running), Succeeded);
        EXPECT_EQ(late(running->Id(), Succeeded), Lost);
        EXPECT_EQ(Files([](auto& request) { request.m_State = "Open"; }), "");
        if (!again) {
            Restart();
        }
    }
}

TEST_F(JournalNode, RemovesTheOldestThatHaveEndedAndNoOpenOne) {
    record->m_MostRows = 100;
    ASSERT_TRUE(Start());
    const auto open = Begin(ZOperationKind::Install, "open");
    open->LeaveOpen();
    const ZString installed = Settled(ZOperationKind::Install);
    for (int count = 0; count < 250; ++count) {
        Settled(ZOperationKind::Check, std::to_string(count).c_str());
    }
    const auto all = Ask([](auto& request) { request.m_Limit = 1000; });
    EXPECT_THAT(all->m_Operations.size(), AllOf(Le(100U), Ge(98U)));
    EXPECT_EQ(all->m_Operations.front()->m_File, "249");
    EXPECT_EQ(all->m_Operations.back()->m_File, "open");
    EXPECT_EQ(Find(installed)->m_State, Succeeded) << "however many files are checked";

    record->m_MostRows = 1000;
    Restart();
    for (int count = 0; count < 800; ++count) {
        Settled();
    }
    // More than one step at once: the rest goes without anybody asking for it.
    record->m_MostRows = 100;
    Restart();
    EXPECT_TRUE(
        WaitUntil([&] { return Ask([](auto& request) { request.m_Limit = 1000; })->m_Operations.size() <= 100; }));

    graph.reset();
    ChangeDatabase(file, "UPDATE operations SET endedAt = endedAt - 864000000");
    record->m_MostDays = 7;
    ASSERT_TRUE(Start());
    Settled(ZOperationKind::Check, "today");
    EXPECT_EQ(Files([](auto&) {}), "today");
}

TEST_F(JournalNode, CutsTextsThatAreTooLong) {
    ASSERT_TRUE(Start());
    const auto job = Begin(ZOperationKind::Check, std::string(10'000, 'f').c_str());
    std::string reason(4095, 'r');
    reason += "\xC3\xA4 and so on";
    job->Fail(ToZString(reason));
    const auto found = Find(job->Id());
    EXPECT_EQ(found->m_File.size(), 4096U);
    EXPECT_EQ(found->m_Reason, ToZString(reason.substr(0, 4095))) << "a character was cut in two";
    TellJob(ZString(65, 'a'));
    EXPECT_EQ(Ask([](auto&) {})->m_Operations.size(), 1U);
}

TEST_F(JournalNode, RefusesBadSettingsAndAFileOfANewerProgram) {
    record->m_MostRows = 99;
    EXPECT_FALSE(Start());
    EXPECT_TRUE(log.Has(4, R"("mostRows" is 99; it must be a number from 100 to 1000000)")) << log.All();
    record->m_MostRows = 100;
    ASSERT_TRUE(Start());
    Settled();
    graph.reset();
    ChangeDatabase(file, "PRAGMA user_version=2");
    EXPECT_FALSE(Start());
    EXPECT_TRUE(
        log.Has(4, "Journal can't be set up: " + file.string() + " was written by a newer version of this program"))
        << log.All();
    EXPECT_FALSE(fs::exists(file.string() + ".damaged"));
}

TEST_F(JournalNode, ReadsAFileThatKnewFewerThings) {
    ASSERT_TRUE(Start());
    const ZString id = Settled();
    graph.reset();
    ChangeDatabase(file, "ALTER TABLE operations DROP COLUMN asker;ALTER TABLE operations DROP COLUMN percent");
    ASSERT_TRUE(Start());
    EXPECT_EQ(Find(id)->m_Percent, 0);
    EXPECT_EQ(Find(id)->m_State, Succeeded);
    EXPECT_EQ(Find(Settled())->m_Percent, 100);
}

}  // namespace
