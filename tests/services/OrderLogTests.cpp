// The orders that the journal keeps: how many, in which order, and when the disk takes nothing.

#include <gmock/gmock.h>

#include "Journal.h"
#include "JournalFiles.h"
#include "NodeBase/ZOperation.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace testing;
using journal::Journal;

namespace {

std::shared_ptr<ZOrderMsg> Order(const std::string& id, bool accepted = true, std::int64_t count = 1) {
    auto order = ZMakeShared<ZOrderMsg>();
    order->m_Id = ToZString(id);
    order->m_bAccepted = accepted;
    order->m_Count = count;
    order->m_User = accepted ? "alice" : "mallory";
    order->m_UserId = accepted ? 1000 : 1001;
    order->m_Time = MillisecondsNow();
    return order;
}

/// "id", or "id*count", of all that are chosen, page after page.
std::vector<std::string> Kept(Journal& journal, const ZOrdersRequestMsg& wanted = {}, std::uint32_t limit = 1000) {
    std::vector<std::string> kept;
    ZOrdersRequestMsg request;
    request.CloneDataMembers(wanted);
    request.m_Limit = limit;
    do {
        const auto page = journal.Answer(request);
        EXPECT_TRUE(page->m_bSuccess) << page->m_ErrorText;
        EXPECT_LE(page->m_Orders.size(), limit);
        for (const auto& order : page->m_Orders) {
            kept.push_back(ToStdString(order->m_Id) +
                           (order->m_Count == 1 ? "" : "*" + std::to_string(order->m_Count)));
        }
        request.m_Before = page->m_Next;
    } while (!request.m_Before.empty());
    return kept;
}

class JournalOrders : public Test {
protected:
    std::unique_ptr<Journal> Opened(std::int64_t orders = 10'000) {
        auto journal = std::make_unique<Journal>(file, journal::Bounds{1000, 0, orders});
        EXPECT_EQ(ErrorOf(journal->Begin()), "");
        return journal;
    }

    TemporaryFolder folder;
    const fs::path file = folder / "journal.sqlite";
    LogCapture log;
};

TEST_F(JournalOrders, AreKeptInTheirOrderAndCountedInTheirPlaces) {
    auto journal = Opened();
    for (const char* id : {"1", "2", "3", "4", "5"}) {
        journal->Take(Order(id, *id != '2'));
    }
    journal->Take(Order("2", false, 7));
    for (const bool again : {false, true}) {
        EXPECT_THAT(Kept(*journal), ElementsAre("5", "4", "3", "2*7", "1"));
        EXPECT_THAT(Kept(*journal, {}, 2), ElementsAre("5", "4", "3", "2*7", "1"));
        const auto chosen = [&](auto fill) {
            ZOrdersRequestMsg request;
            fill(request);
            return Kept(*journal, request);
        };
        EXPECT_THAT(chosen([](auto& request) { request.m_Result = "refused"; }), ElementsAre("2*7"));
        EXPECT_THAT(chosen([](auto& request) { request.m_User = "mallory"; }), ElementsAre("2*7"));
        EXPECT_THAT(chosen([](auto& request) { request.m_User = "1001"; }), ElementsAre("2*7"));
        EXPECT_THAT(chosen([](auto& request) { request.m_Since = MillisecondsNow() + 60'000; }), IsEmpty());
        if (!again) {
            journal.reset();
            journal = Opened();
        }
    }
    for (const char* before : {"x", "-1"}) {
        ZOrdersRequestMsg request;
        request.m_Before = before;
        EXPECT_FALSE(journal->Answer(request)->m_bSuccess);
    }
    journal->Take(Order(""));
    journal->Take(Order(std::string(65, 'x')));
    const auto large = Order("6");
    large->m_Subject.assign(100'000, 'x');
    journal->Take(large);
    ZOrdersRequestMsg newest;
    newest.m_Limit = 1;
    EXPECT_EQ(journal->Answer(newest)->m_Orders.front()->m_Subject.size(), 512U);
    journal.reset();
    EXPECT_THAT(Kept(*Opened()), ElementsAre("6", "5", "4", "3", "2*7", "1"))
        << "a later life goes on behind an earlier";
}

TEST_F(JournalOrders, ThatAreRefusedPushOutNoneThatWasObeyed) {
    auto journal = Opened(100);
    for (int number = 0; number < 10; ++number) {
        journal->Take(Order("done " + std::to_string(number)));
    }
    for (int number = 0; number < 300; ++number) {
        journal->Take(Order("no " + std::to_string(number), false));
    }
    EXPECT_THAT(Kept(*journal), AllOf(SizeIs(Le(35U)), SizeIs(Ge(30U)), Contains("done 0"), Contains("no 299")));
    for (int number = 0; number < 300; ++number) {
        journal->Take(Order("more " + std::to_string(number)));
    }
    EXPECT_THAT(Kept(*journal),
                AllOf(SizeIs(Le(100U)), Contains("more 299"), Contains("no 299"), Not(Contains("done 0"))));
    journal.reset();
    EXPECT_THAT(Kept(*Opened(100)), SizeIs(Le(100U))) << "what is there is counted when the file is opened";
}

TEST_F(JournalOrders, StayInMemoryWhileTheDiskTakesNothing) {
    auto owner = Opened();
    owner->Take(Order("before"));
    Journal second(file, journal::Bounds{1000, 0});
    EXPECT_EQ(ErrorOf(second.Begin()), "");
    ASSERT_TRUE(second.IsFailing()) << "two hosts have one file";
    for (int number = 0; number < 1500; ++number) {
        second.Take(Order(std::to_string(number)));
    }
    second.Take(Order("1499", true, 3));
    EXPECT_EQ(Kept(second).size(), 1000U);
    owner->Take(Order("last"));
    owner.reset();
    second.DoRest();
    ASSERT_FALSE(second.IsFailing()) << log.All();
    const auto kept = Kept(second);
    ASSERT_EQ(kept.size(), 1002U);
    EXPECT_EQ(kept.front(), "1499*3");
    EXPECT_THAT((std::vector(kept.end() - 2, kept.end())), ElementsAre("last", "before"));
}

TEST_F(JournalOrders, FindRoomInAFileOfAnEarlierProgram) {
    Opened()->Take(Job("job", ZOperationState::Succeeded));
    ChangeDatabase(file, "DROP TABLE orders");
    auto journal = Opened();
    journal->Take(Order("1"));
    EXPECT_THAT(Kept(*journal), ElementsAre("1"));
    EXPECT_EQ(journal->Answer(ZOperationsRequestMsg())->m_Operations.size(), 1U);
}

}  // namespace
