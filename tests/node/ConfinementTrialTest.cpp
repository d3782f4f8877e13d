#include <gtest/gtest.h>

#include <fstream>
#include <future>

#include "ConfinementTrial.h"
#include "ShellText.h"
#include "TestSupport.h"
#include "ZShared/ZStopEvent.h"

namespace {

class ConfinementTrials : public ::testing::Test {
protected:
    /// Goes on once Go was called.
    std::string Waiting() const { return "until [ -e " + ShellQuoted(m_go.string()) + " ]; do sleep 0.01; done; "; }
    void Go() const { std::ofstream(m_go).put('\n'); }

    const TemporaryFolder m_folder;
    const std::filesystem::path m_go = m_folder / "go";
};

}  // namespace

TEST_F(ConfinementTrials, WhoBeganItGoesOnAndWhoAsksWaits) {
    std::promise<std::string> told;
    const ConfinementTrial good(Waiting(), [](const ZResult<void>& outcome) { EXPECT_TRUE(outcome); });
    EXPECT_FALSE(good.IsKnown({}));
    const ConfinementTrial bad(Waiting() + "echo no namespaces; exit 1",
                               [&](const ZResult<void>& outcome) { told.set_value(ErrorOf(outcome)); });
    Go();
    EXPECT_EQ(ErrorOf(good.Outcome()), "");
    EXPECT_EQ(ErrorOf(bad.Outcome()), "checks can't be confined: no namespaces");
    EXPECT_EQ(told.get_future().get(), ErrorOf(bad.Outcome()));
}

TEST_F(ConfinementTrials, EndsUntoldWithTheThreadThatBeganIt) {
    ZStopEvent stop;
    const ZStopScope scope(stop);
    const ConfinementTrial trial(Waiting(), [](const ZResult<void>&) { ADD_FAILURE() << "it was told"; });
    stop.Set();
    EXPECT_EQ(ErrorOf(trial.Outcome()), "whether checks can be confined was not found out: the host stops");
}
