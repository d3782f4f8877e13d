// What the link decides, as a table of what happens and what it orders: no sockets, and time is a number.
#include <gmock/gmock.h>

#include "NodeLink/LinkPolicy.h"
#include "ZShared/ZLogLimit.h"

namespace {

using Kind = LinkPolicy::Order::Kind;
using std::chrono::milliseconds;
using namespace testing;

/// An order without what the tests do not look at.
using Said = std::pair<Kind, LinkPolicy::Id>;

class Policy : public testing::Test {
protected:
    std::vector<Said> Orders() {
        std::vector<Said> said;
        for (const auto& order : m_policy.TakeOrders()) {
            said.emplace_back(order.kind, order.id);
        }
        return said;
    }
    /// What is ordered once that much time has passed.
    std::vector<Said> After(milliseconds time) {
        m_now += time;
        m_policy.Advance(m_now);
        return Orders();
    }
    void Pin(const std::string& key, const std::string& address = {}) {
        m_pins.push_back({key, key, address, {}});
        m_policy.SetPins(m_pins, m_now);
    }
    LinkPolicy::Id GuestFrom(const std::string& host) { return m_policy.Accepted(host, m_now).id; }
    /// A pinned device calls and introduces itself.
    LinkPolicy::Id Arrive(const std::string& key) {
        const auto id = GuestFrom("10.0.0.1");
        m_policy.Opened(id, key, m_now);
        m_policy.Introduced(id);
        Orders();
        return id;
    }
    /// A called device takes the call and proves its key.
    void Answer(LinkPolicy::Id id, const std::string& key) {
        m_policy.Reached(id, m_now);
        m_policy.Opened(id, key, m_now);
    }

    std::vector<ZLinkPin> m_pins;
    LinkPolicy m_policy{"m", milliseconds(1000)};
    LinkPolicy::Time m_now = LinkPolicy::Time() + std::chrono::hours(1);
};

TEST_F(Policy, CrowdsMakeRoomThemselves) {
    const auto quiet = GuestFrom("10.0.0.9");
    std::vector<LinkPolicy::Id> crowd;
    for (int count = 0; count < 4; ++count) {
        crowd.push_back(GuestFrom("10.0.0.1"));
    }
    EXPECT_THAT(Orders(), IsEmpty());
    EXPECT_TRUE(m_policy.Accepted("10.0.0.1", m_now).crowded);
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, crowd[0]})) << "a host that has its share";
    for (int host = 2; host <= 4; ++host) {
        for (int count = 0; count < (host == 4 ? 3 : 4); ++count) {
            GuestFrom("10.0.0." + std::to_string(host));
        }
    }
    EXPECT_THAT(Orders(), IsEmpty());
    GuestFrom("10.0.0.5");
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, crowd[1]})) << "the host that has most; never " << quiet;
}

TEST_F(Policy, OfManyHostsTheOldestGuestMakesRoomWhateverTheNames) {
    const auto oldest = GuestFrom("10.0.0.50");
    for (int host = 51; host < 65; ++host) {
        GuestFrom("10.0.0." + std::to_string(host));
    }
    GuestFrom("10.0.0.1");
    EXPECT_THAT(Orders(), IsEmpty());
    GuestFrom("10.0.0.70");
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, oldest}));
}

TEST_F(Policy, WhoDoesNotGetOnWithItIsCutOff) {
    Pin("a");
    const auto stranger = GuestFrom("10.0.0.1");
    EXPECT_THAT(After(milliseconds(2999)), IsEmpty());
    EXPECT_THAT(After(milliseconds(1)), ElementsAre(Said{Kind::Close, stranger}));
    const auto silent = GuestFrom("10.0.0.1");
    m_policy.Opened(silent, "a", m_now);
    for (int second = 0; second < 9; ++second) {
        EXPECT_THAT(After(milliseconds(1000)), ElementsAre(Said{Kind::Probe, silent}));
        m_policy.Heard(silent, m_now);
    }
    EXPECT_THAT(After(milliseconds(1000)), ElementsAre(Said{Kind::Close, silent})) << "it never introduced itself";
}

TEST_F(Policy, ASilentDeviceIsProbedAndGivenUp) {
    Pin("a");
    const auto id = Arrive("a");
    EXPECT_THAT(After(milliseconds(999)), IsEmpty());
    EXPECT_THAT(After(milliseconds(1)), ElementsAre(Said{Kind::Probe, id}));
    m_policy.Heard(id, m_now);
    EXPECT_THAT(After(milliseconds(1000)), ElementsAre(Said{Kind::Probe, id}));
    EXPECT_THAT(After(milliseconds(1000)), ElementsAre(Said{Kind::Probe, id}));
    EXPECT_THAT(After(milliseconds(1000)), ElementsAre(Said{Kind::Close, id}, Said{Kind::Gone, id}));
    EXPECT_EQ(std::nullopt, m_policy.Session("a"));
}

TEST_F(Policy, APinnedDeviceIsCalledAgainLaterAndLater) {
    Pin("a", "tcp://10.0.0.1:1");
    // How a call ended, and the milliseconds before the next one.
    const std::pair<LinkPolicy::End, int> table[]{
        {LinkPolicy::End::Lost, 100}, {LinkPolicy::End::Lost, 200},    {LinkPolicy::End::Lost, 400},
        {LinkPolicy::End::Lost, 400}, {LinkPolicy::End::Refused, 500}, {LinkPolicy::End::WrongDevice, 60'000}};
    LinkPolicy::Id call = 1;
    EXPECT_THAT(After(milliseconds(0)), ElementsAre(Said{Kind::Call, call}));
    for (const auto& [end, before] : table) {
        m_policy.Ended(call, end, m_now);
        EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, call}));
        EXPECT_THAT(After(milliseconds(before - 1)), IsEmpty());
        EXPECT_THAT(After(milliseconds(1)), ElementsAre(Said{Kind::Call, ++call})) << before;
    }
    EXPECT_THAT(After(milliseconds(500)), ElementsAre(Said{Kind::Close, call})) << "nobody took the call";
}

TEST_F(Policy, OfTwoCallsThatOfTheSmallerKeyCounts) {
    Pin("a", "tcp://10.0.0.1:1");  // whose calls count: this device's key is "m"
    Pin("z", "tcp://10.0.0.2:1");
    EXPECT_THAT(After(milliseconds(0)), ElementsAre(Said{Kind::Call, 1}, Said{Kind::Call, 2}));
    Answer(1, "a");
    Answer(2, "z");
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Introduce, 1}, Said{Kind::Introduce, 2}));
    m_policy.Introduced(1);
    m_policy.Introduced(2);
    const auto fromA = GuestFrom("10.0.0.1");
    m_policy.Opened(fromA, "a", m_now);
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, 1}, Said{Kind::Gone, 1}));
    m_policy.Introduced(fromA);
    const auto fromZ = GuestFrom("10.0.0.2");
    m_policy.Opened(fromZ, "z", m_now);
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Introduce, fromA}, Said{Kind::Close, fromZ}));
    EXPECT_THAT(After(milliseconds(900)), IsEmpty()) << "a device that called, and counts, is not called";
    m_policy.Ended(fromA, LinkPolicy::End::Lost, m_now);
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, fromA}, Said{Kind::Gone, fromA}));
    EXPECT_THAT(After(milliseconds(0)), ElementsAre(Said{Kind::Call, fromZ + 1})) << "its own call takes over";
}

TEST_F(Policy, ALaterCallOfTheSameDeviceTakesTheEarlierOnesPlace) {
    Pin("a");
    const auto first = Arrive("a");
    const auto second = GuestFrom("10.0.0.1");
    m_policy.Opened(second, "a", m_now);
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, first}, Said{Kind::Gone, first}));
}

TEST_F(Policy, WhoseAddressOrPinChangesIsCutOffAndTheOthersStay) {
    Pin("a");
    Pin("b");
    const auto a = Arrive("a");
    const auto b = Arrive("b");
    m_pins[1].name = "another name";
    m_policy.SetPins(m_pins, m_now);
    EXPECT_THAT(Orders(), IsEmpty());
    m_pins.erase(m_pins.begin());
    m_policy.SetPins(m_pins, m_now);
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, a}, Said{Kind::Gone, a}));
    const auto late = GuestFrom("10.0.0.1");
    m_policy.Opened(late, "a", m_now);
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, late})) << "its pin went while it proved its key";
    m_pins[0].address = "tcp://10.0.0.1:1";
    m_policy.SetPins(m_pins, m_now);
    EXPECT_THAT(Orders(), ElementsAre(Said{Kind::Close, b}, Said{Kind::Gone, b}));
}

TEST(LogLimit, TellsTheFirstLineOfAKindThenOneAMinuteAndOfManyKindsTogether) {
    ZLogLimit limit(2);
    auto now = ZClock::time_point() + std::chrono::hours(1);
    EXPECT_EQ("", limit.Admit("a", now));
    EXPECT_EQ(std::nullopt, limit.Admit("a", now));
    EXPECT_EQ("", limit.Admit("b", now));
    EXPECT_EQ("", limit.Admit("c", now)) << "of all others";
    EXPECT_EQ(std::nullopt, limit.Admit("d", now));
    now += std::chrono::minutes(1);
    EXPECT_EQ(" (1 more like it)", limit.Admit("a", now));
    EXPECT_EQ(" (1 more like it)", limit.Admit("e", now));
    EXPECT_EQ(std::nullopt, limit.Admit("a", now));
    EXPECT_EQ(std::nullopt, limit.Admit("f", now)) << "of all others";
    now += std::chrono::hours(1);
    EXPECT_EQ("", limit.Admit("f", now)) << "those that went silent make room, whatever of them was left out";
    EXPECT_EQ(std::nullopt, limit.Admit("f", now));
    EXPECT_EQ("", limit.Admit("a", now));

    const std::string stranger(200, 'x');
    ZLogLimit few(8);
    EXPECT_EQ("", few.Admit(stranger + "1", now));
    EXPECT_EQ(std::nullopt, few.Admit(stranger + "2", now)) << "of a kind's text only so much is kept";

    ZLogLimit two(8, 2);
    for (const auto& told :
         {std::optional<std::string>(""), std::optional<std::string>(""), std::optional<std::string>()}) {
        EXPECT_EQ(told, two.Admit("a", now));
    }
}

}  // namespace
