#include <gmock/gmock.h>

#include <future>

#include "NodeComm/ZNodeCommLocal.h"
#include "TestSupport.h"
#include "ZMessages/Messages.h"

using namespace std::chrono_literals;
using enum ZPublishOutcome;

namespace {

using Message = std::shared_ptr<ZMessage>;
using Outcomes = std::vector<ZPublishOutcome>;

constexpr ZPublishOptions kPatient{true, false, 10min};
constexpr ZPublishOptions kHasty{true, false, 20ms};
constexpr std::size_t kRoom = 4;

/// A bus with one receiver, "node", whose thread and queue are its own.
class Bus : public testing::Test {
protected:
    ~Bus() override {
        m_mailbox->Close();
        m_thread.join();
    }
    bool Subscribe(ZNodeComm::Handler handler, ZEndpointType type = ZEndpointType::GraphService,
                   const char* name = "place") {
        return m_bus->Subscribe(this, ZNodeUID("node"), m_mailbox, {ZNodeUID(), type, name}, std::move(handler));
    }
    ZPublishOutcome Publish(const ZPublishOptions& options, const Message& message = Z_MAKE(BatteryMsg)) {
        return m_bus->Publish(m_place, message, nullptr, options);
    }
    ZPublishOutcome Ask(const ZPublishOptions& options, const ZCommEndpoint& place) {
        return m_bus->Publish(place, Z_MAKE(ZGenericRequestMsg), &m_answer, options);
    }
    /// Keeps the receiver busy until the promise is fulfilled.
    void Hold(std::promise<void>& release) {
        std::promise<void> held;
        // The future is taken here: the promise may be gone before the receiver's thread gets on.
        m_mailbox->Post([&held, released = release.get_future().share()] { held.set_value(), released.wait(); },
                        ZMailbox::Clock::now() + 1min, 2);
        held.get_future().wait();
    }
    /// Waits until the receiver has done all that waited.
    void Settle() {
        std::promise<void> done;
        ASSERT_TRUE(m_mailbox->Post([&done] { done.set_value(); }, ZMailbox::Clock::now() + 1min, -1));
        done.get_future().wait();
    }

    const ZCommEndpoint m_place{ZNodeUID(), ZEndpointType::GraphService, "place"};
    const ZCommEndpoint m_ofNode{ZNodeUID("node"), ZEndpointType::GraphService, "place"};
    const std::shared_ptr<ZNodeCommLocal> m_bus = ZMakeShared<ZNodeCommLocal>();
    const std::shared_ptr<ZMailbox> m_mailbox = std::make_shared<ZMailbox>(kRoom);
    std::thread m_thread{[this] { m_mailbox->Run(); }};
    Message m_answer;
    LogCapture m_log;
};

TEST_F(Bus, DeliversInTheOrderOfSubscriptionUrgentFirstWhateverAHandlerThrows) {
    std::string order;
    for (const char* name : {"a ", "b "}) {
        Subscribe([&order, name](Message& m) -> bool { throw std::runtime_error((order += m->ClassName()) += name); });
    }
    std::promise<void> release;
    Hold(release);
    EXPECT_EQ(Publish({}), Delivered);
    EXPECT_EQ(Publish({false, true, {}}, Z_MAKE(ZFileMsg)), Delivered);
    release.set_value();
    Settle();
    EXPECT_EQ(order, "ZFileMsga ZFileMsgb BatteryMsga BatteryMsgb ");
    EXPECT_TRUE(m_log.Has(4, "An exception left a handler of node: ZFileMsga ")) << m_log.All();
}

TEST_F(Bus, ReachesWhatIsSubscribedThereAndNothingElse) {
    const auto echo = [](Message& m) { return ZResponseSource(*m).Comm()->Respond(ZResponseSource(*m), m); };
    EXPECT_FALSE(Subscribe(echo, ZEndpointType::GraphService, ""));
    EXPECT_TRUE(Subscribe(echo, ZEndpointType::Progress, ""));
    EXPECT_EQ((Outcomes{Publish({}), Ask({}, m_place), Ask({}, m_ofNode)}), Outcomes(3, NoSubscriber));
    Subscribe(echo);
    EXPECT_EQ((Outcomes{Ask(kPatient, m_place), Ask(kPatient, m_ofNode)}), Outcomes(2, Delivered));
    EXPECT_EQ(Ask({}, {ZNodeUID("another"), ZEndpointType::GraphService, "place"}), NoSubscriber);
    EXPECT_EQ(Ask({}, {ZNodeUID(), ZEndpointType::DeviceRequest, "place"}), NoSubscriber);
}

TEST_F(Bus, GivesARequesterTheFirstAnswerOnly) {
    std::vector<ZResponseSource> sources;
    std::vector<bool> taken;
    Subscribe([&](Message& m) {
        sources.emplace_back(*m);
        for (const Message& answer : {Message(Z_MAKE(BatteryMsg)), Message(Z_MAKE(ZFileMsg))}) {
            taken.push_back(sources.size() == 1 && m_bus->Respond(sources[0], answer));
        }
        return true;
    });
    EXPECT_EQ(Ask(kPatient, m_place), Delivered);
    EXPECT_TRUE(ZCAST(BatteryMsg, m_answer));
    EXPECT_EQ(Ask(kHasty, m_place), NoAnswer);
    Settle();
    EXPECT_THAT(taken, testing::ElementsAre(true, false, false, false));
    EXPECT_FALSE(m_bus->Respond(sources[1], Z_MAKE(BatteryMsg)));
}

TEST_F(Bus, RefusesARequestThatOnlyItsOwnThreadCouldAnswer) {
    const auto other = std::make_shared<ZMailbox>(1);  // listens there too, but is not who is asked
    m_bus->Subscribe(&other, ZNodeUID("other"), other, m_place, [](Message&) { return true; });
    std::promise<ZPublishOutcome> outcome;
    Subscribe([&](Message&) { return outcome.set_value(Ask(kPatient, m_ofNode)), true; });
    Publish({});
    EXPECT_EQ(outcome.get_future().get(), Refused);
    other->Close();
    other->Run();  // what waits in a queue holds it
}

TEST_F(Bus, WaitsForRoomInAFullQueueUntilItCloses) {
    std::promise<void> release;
    std::promise<void> asked;
    Subscribe([&](Message& m) { return m->IsKindOf(BatteryMsg::m_cid) || (asked.set_value(), true); });
    auto asking = std::async(std::launch::async, [this] { return Ask(kPatient, m_place); });
    asked.get_future().wait();
    Hold(release);
    while (Publish({false, false, 10min}) == Delivered) {
    }
    EXPECT_EQ(Publish(kHasty), QueueFull);
    EXPECT_TRUE(m_log.Has(4, "The queue of node is full or closed: a BatteryMsg was not delivered")) << m_log.All();
    std::atomic<int> delivered{0};
    auto publishing = std::async(std::launch::async, [this, &delivered] {
        for (; Publish(kPatient) == Delivered; ++delivered) {
        }
        return Publish({});
    });
    release.set_value();
    EXPECT_TRUE(WaitUntil([&delivered] { return delivered > 0; }));
    std::promise<void> again;
    Hold(again);
    EXPECT_TRUE(WaitUntil([this] { return m_mailbox->Waiting() == kRoom; }));
    m_bus->Close();
    EXPECT_EQ((Outcomes{asking.get(), publishing.get(), Publish({})}), (Outcomes{Closed, Closed, Closed}));
    EXPECT_FALSE(Subscribe([](Message&) { return true; }));
    again.set_value();
}

TEST_F(Bus, EntersNoHandlerOnceItIsUnsubscribed) {
    std::atomic<bool> done{false};
    auto publishing = std::async(std::launch::async, [this, &done] {
        while (!done) {
            Publish(kPatient);
        }
    });
    std::atomic<int> now{0};
    std::atomic<bool> late{false};
    for (int round = 1; round <= 200; ++round) {
        now = round;
        Subscribe([&, round](Message&) { return late = late || now != round, true; });
        m_bus->Unsubscribe(this);
        now = 0;
    }
    EXPECT_FALSE(late);
    std::promise<void> unsubscribed;  // a handler may do it, too
    std::atomic<int> entered{0};
    Subscribe([&](Message&) {
        m_bus->Unsubscribe(this);
        if (++entered == 1) {
            unsubscribed.set_value();
        }
        return true;
    });
    unsubscribed.get_future().wait();
    done = true;
    publishing.wait();
    EXPECT_EQ(entered, 1);
}

}  // namespace
