// The life of versions, without files: every way from an install to its end, and that none goes round in circles.

#include <gtest/gtest.h>

#include <random>

#include "ZBoot/ZTrialState.h"

namespace {

const ZSlotVersion kOld{"A", "3.044", "aa"};
const ZSlotVersion kNew{"B", "3.046", "bb"};

/// A device with two slots, whose boots follow the state.
struct Device {
    ZTrialState state;
    std::string active = "A";
    int boots = 0;
    bool bLoaderFallsBack = false;
    bool bCanGoBack = true;

    Device() { Boot(); }
    ZSlotVersion Running() const { return active == "A" ? kOld : kNew; }
    ZBootFacts Facts() {
        return {.running = Running(),
                .next = active,
                .bootId = "boot " + std::to_string(++boots),
                .now = boots,
                .clock = 0,
                .bLoaderFallsBack = bLoaderFallsBack,
                .bCanGoBack = bCanGoBack,
                .attempts = 3};
    }
    /// One start, and those that follow from it by themselves; how many there were.
    int Boot() {
        int starts = 1;
        while (state.Begin(Facts()) == ZBootAction::GoBack && starts < 100) {
            active = state.confirmed.slot;
            ++state.trial->goneBack;
            ++starts;
        }
        return starts;
    }
    void Install() {
        active = "B";
        state.Install(kNew, state.bootId);
    }
    std::string Counts() const {
        const ZTrialCounts& counts = state.counts;
        std::string text = std::to_string(counts.begun) + " begun, " + std::to_string(counts.confirmed) + " confirmed";
        for (std::size_t cause = 0; cause < counts.takenBack.size(); ++cause) {
            if (const std::uint64_t count = counts.takenBack.at(cause); count > 0) {
                text += ", " + std::to_string(count) + " " + ToText(static_cast<ZTrialCause>(cause));
            }
        }
        return text;
    }
    std::string Stage() const { return state.trial ? ToText(state.trial->stage) : "none"; }
};

class TrialState : public testing::Test {
protected:
    Device device;
};

}  // namespace

TEST_F(TrialState, WhatTheFactoryPutThereIsConfirmed) {
    EXPECT_TRUE(device.state.confirmed.SameAs(kOld));
    EXPECT_EQ(device.Boot(), 1);
    EXPECT_EQ(device.Stage(), "none");
}

TEST_F(TrialState, ProvesItselfOrUsesUpItsStarts) {
    device.Install();
    EXPECT_EQ(device.Stage(), "installed");
    device.Boot();
    EXPECT_EQ(device.Stage(), "trial");
    EXPECT_EQ(device.state.trial->attempts, 1U);
    const ZBootFacts again{.running = kNew, .next = "B", .bootId = device.state.bootId};
    EXPECT_EQ(device.state.Begin(again), ZBootAction::GoOn);
    EXPECT_EQ(device.state.trial->attempts, 1U) << "a boot counts once";
    device.state.bOrderly = true;
    static_cast<void>(device.state.Begin(again));
    EXPECT_FALSE(device.state.bOrderly) << "the boot has not ended";

    Device good = device;
    good.state.Confirm("all its checks held", 7);
    EXPECT_TRUE(good.state.confirmed.SameAs(kNew));
    EXPECT_TRUE(good.state.last->bConfirmed);
    EXPECT_EQ(good.Counts(), "1 begun, 1 confirmed");
    EXPECT_EQ(good.Boot(), 1);

    device.Boot();
    device.Boot();
    EXPECT_EQ(device.state.trial->attempts, 3U);
    EXPECT_EQ(device.Boot(), 2) << "the fourth start goes back";
    EXPECT_EQ(device.active, "A");
    ASSERT_NE(device.state.FindTakenBack("3.046", "bb"), nullptr);
    EXPECT_EQ(device.state.FindTakenBack("3.046", "cc"), nullptr) << "built anew, it is another one";
    EXPECT_NE(device.state.FindTakenBack("3.046", ""), nullptr);
    EXPECT_EQ(device.Counts(), "1 begun, 0 confirmed, 1 starts");
    EXPECT_TRUE(device.state.Allow("3.046"));
    EXPECT_FALSE(device.state.Allow("3.046"));
}

TEST_F(TrialState, OrderlyRestartsDoNotCountButHaveAnEnd) {
    device.Install();
    device.Boot();
    for (std::uint32_t restart = 1; restart <= ZTrialState::kMostRestarts; ++restart) {
        device.state.bOrderly = true;
        device.Boot();
        ASSERT_EQ(device.Stage(), "trial");
        ASSERT_EQ(device.state.trial->attempts, 1U);
    }
    device.state.bOrderly = true;
    device.Boot();
    EXPECT_EQ(device.active, "A");
}

TEST_F(TrialState, FailedCheckGoesBackOnceWhateverInterruptsThat) {
    device.Install();
    device.Boot();
    device.state.Fail({"measures: no signal", ZTrialCause::Check, "measures"});
    Device cut = device;  // the power goes before the other slot was made to start next
    EXPECT_EQ(cut.Boot(), 2);
    EXPECT_EQ(cut.state.last->reason, "measures: no signal");
    device.active = "A";
    EXPECT_EQ(device.Boot(), 1);
    EXPECT_EQ(device.state.last->failedCheck, "measures");
    EXPECT_EQ(device.Counts(), "1 begun, 0 confirmed, 1 check");
    EXPECT_EQ(cut.Counts(), device.Counts()) << "once, whatever interrupts it";
    device.Install();
    device.Boot();
    device.state.Confirm("all its checks held", 7);
    EXPECT_EQ(device.Counts(), "2 begun, 1 confirmed, 1 check");
    EXPECT_EQ(ZTrialState::Parse(device.state.ToText())->ToText(), device.state.ToText());
    device.state.confirmed = kOld;
    EXPECT_TRUE(device.state.confirmed.SameAs(kOld));
}

TEST_F(TrialState, WithoutAWayBackItStaysUp) {
    device.Install();
    device.bCanGoBack = false;
    for (int boot = 0; boot < 10; ++boot) {
        EXPECT_EQ(device.Boot(), 1);
    }
    EXPECT_EQ(device.active, "B");
    EXPECT_EQ(device.Stage(), "reverting");
}

TEST_F(TrialState, BootLoaderThatGoesBackIsBelieved) {
    device.bLoaderFallsBack = true;
    device.Install();
    device.active = "A";  // its image never loaded
    device.Boot();
    EXPECT_EQ(device.state.last->reason, "it never came up, so the boot loader went back");
    EXPECT_EQ(device.Counts(), "0 begun, 0 confirmed, 1 neverUp");
    Device linked;
    linked.Install();
    linked.active = "A";  // switched back by somebody, before a restart
    linked.Boot();
    EXPECT_FALSE(linked.state.last) << "nobody has tried it";
    EXPECT_EQ(linked.Stage(), "none");
}

TEST_F(TrialState, IsTheSameAfterItWasWrittenAndReadWhateverItsTextsHold) {
    device.Install();
    device.Boot();
    device.state.Fail({std::string(100'000, '\xff') + "\"\\\n", ZTrialCause::Check, "measures"});
    for (int entry = 0; entry < 100; ++entry) {
        device.state.takenBack.push_back(
            {"3." + std::to_string(entry), std::string(64, 'a'), std::string(400, 'x'), 1});
    }
    const auto kept = ZTrialState::Parse(device.state.ToText());
    ASSERT_TRUE(kept && kept->takenBack.size() == ZTrialState::kMostTakenBack);
    EXPECT_EQ(kept->takenBack.back().version, "3.99") << "the newest stay";
    device.state = *kept;
    const std::string text = device.state.ToText();
    EXPECT_LT(text.size(), ZTrialState::kLargest);
    const auto read = ZTrialState::Parse(text);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->ToText(), text);
    for (const char* const wrong : {"", "{}", "[]", "{\"format\":2,\"confirmed\":{}}", "null", "{\"format\":1}"}) {
        EXPECT_FALSE(ZTrialState::Parse(wrong)) << wrong;
    }
}

TEST_F(TrialState, NoSequenceOfEventsEndsInCirclesOrWithoutAVersion) {
    for (unsigned seed = 0; seed < 500; ++seed) {
        std::mt19937 random(seed);
        Device any;
        any.bLoaderFallsBack = seed % 2 == 0;
        for (int step = 0; step < 60; ++step) {
            switch (random() % 7) {
                case 0:
                    if (any.Stage() == "none" && any.active == "A") {
                        any.Install();
                    }
                    break;
                case 1:
                    any.state.Confirm("by chance", step);
                    break;
                case 2:
                    any.state.Fail({"by chance"});
                    break;
                case 3:
                    any.state.bOrderly = true;
                    break;
                case 4:
                    if (any.bLoaderFallsBack && any.Stage() != "none") {
                        any.active = any.state.confirmed.slot;
                    }
                    break;
                default:
                    ASSERT_LE(any.Boot(), 3) << "seed " << seed << " step " << step;
                    if (any.Stage() == "none") {
                        ASSERT_TRUE(any.Running().SameAs(any.state.confirmed)) << "seed " << seed << " step " << step;
                    }
            }
            const auto kept = ZTrialState::Parse(any.state.ToText());  // every state survives a power cut
            ASSERT_TRUE(kept);
            any.state = *kept;
        }
    }
}
