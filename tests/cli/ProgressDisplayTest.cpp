#include "ProgressDisplay.h"

#include <gmock/gmock.h>

#include <sstream>
#include <vector>

namespace arborctl {
namespace {

Progress Stage(const std::string& message, int percent, bool spinner = false) {
    return {"Install", message, percent, spinner, false, false};
}
Progress Ended(bool error) {
    return {"Install", "Finished", 100, false, error, true};
}

std::string Shown(const std::vector<Progress>& course, std::size_t columns) {
    std::ostringstream out;
    ProgressDisplay display(out, [columns] { return columns; });
    for (const auto& progress : course) {
        display.Show(progress);
    }
    display.End();
    return out.str();
}

TEST(ProgressDisplay, WritesALineForEachStageAndTenthWithoutATerminal) {
    EXPECT_EQ(Shown({Stage("Write", 1), Stage("Write", 2), Stage("Write", 2), Stage("Write", 12),
                     Stage("Sync", 12, true), Ended(false), Ended(false)},
                    0),
              "  1 %  Install: Write\n"
              " 12 %  Install: Write\n"
              "       Install: Sync\n"
              "100 %  Install: Finished (done)\n");
    EXPECT_EQ(Shown({Ended(true)}, 0), "100 %  Install: Finished (failed)\n");
}

TEST(ProgressDisplay, RedrawsOneLineOnATerminalAndNeverFillsIt) {
    EXPECT_EQ(Shown({Stage("Write", 50), Ended(false)}, 60),
              "\r\x1b[K[##########----------]  50 %  Install: Write"
              "\r\x1b[K[####################] 100 %  Install: Finished\n");
    for (const std::size_t columns : {20U, 40U, 79U, 200U}) {
        const std::string shown = Shown({Stage(std::string(300, 'm'), 7)}, columns);
        EXPECT_LT(shown.size() - std::string("\r\x1b[K\n").size(), columns);
    }
}

TEST(ProgressDisplay, MovesTheSpinnerWithEachMessage) {
    std::ostringstream out;
    ProgressDisplay display(out, [] { return std::size_t{60}; });
    display.Show(Stage("Sync", 0, true));
    std::string last = out.str();
    for (int message = 0; message < 50; ++message) {
        out.str("");
        display.Show(Stage("Sync", 0, true));
        EXPECT_NE(out.str(), last);
        EXPECT_THAT(out.str(), testing::HasSubstr("<=>"));
        last = out.str();
    }
}

TEST(Progress, ToleratesADocumentThatSaysLess) {
    const auto parsed = Progress::From({{"percent", 250}, {"message", "a\x1b"}, {"done", "yes"}});
    EXPECT_EQ(parsed.percent, 100);
    EXPECT_EQ(parsed.message, "a\\x1b");
    EXPECT_FALSE(parsed.done);
}

}  // namespace
}  // namespace arborctl
