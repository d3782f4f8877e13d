#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>

#include "Conversation.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::string Step(int percent, const std::string& more = "") {
    return Event("progress",
                 R"({"header": "Install", "message": "Write", "percent": )" + std::to_string(percent) + more + "}");
}
const std::string kDone = Step(100, R"(, "done": true)");
const std::string kError = Step(4, R"(, "message": "Slot B broke", "error": true, "done": true)");
const std::string kOldDone = Step(99, R"(, "done": true)");
const std::string kLive = ": live\n\n";

std::string LogLine(const std::string& line) {
    return Event("log", R"({"line": ")" + line + R"("})");
}

/// A device that is ready for everything that is tested here.
struct Device : ScriptedGateway {
    Device() {
        Script("/v1/updatesystem", {200, R"({"bSuccess": true})"});
        Script("/v1/transfer", {200, R"({"bSuccess": true})"});
        Script("/v1/remoteinstall", {200, R"({"messages": [{"bSuccess": true}]})"});
        Script("/v1/findupdates", {200, R"({"messages": []})"});
        Script("/v1/newFile", {202, ""});
        Script("/v1/upload", {200, R"({"bSuccess": true})"});
        Script("/v1/status", {200, R"({"progress": {"percent": 10}, "updateInProgress": true})"});
    }
    [[nodiscard]] std::unique_ptr<Program> Start(const std::string& line) const {
        return std::make_unique<Program>(Folder(), "--socket " + Socket() + " " + line);
    }
};

TEST(Follow, AnInstallGoesOnFromTheLastProgressWhenTheConnectionBreaks) {
    Device device;
    device.Play({kOldDone + kLive, "updatesystem", Step(10) + Step(40), true});
    device.Play({kLive, "", "data: {\"ha", true});
    device.Play({Step(40) + kLive, "", Step(70) + kDone});
    const auto program = device.Start("install 3.046 --wait");
    EXPECT_EQ(program->Status(), 0) << program->Errors();
    EXPECT_EQ(program->Output(),
              "Installing 3.046: started\n"
              " 10 %  Install: Write\n 40 %  Install: Write\n 70 %  Install: Write\n100 %  Install: Write (done)\n"
              "Installing 3.046: done\n");
}

TEST(Follow, AnEarlierInstallsEndIsNotTakenForThisOnes) {
    Device device;
    device.Play({kOldDone + kLive, "updatesystem", "", true});
    device.Play({kOldDone + kLive, "", Step(10) + kError});
    const auto program = device.Start("install 3.046 --wait --json");
    EXPECT_EQ(program->Status(), 1);
    EXPECT_THAT(program->Output(), Not(HasSubstr("99")));
    EXPECT_THAT(program->Output(), HasSubstr(R"({"error":"Installing 3.046: Slot B broke","exitCode":1})"));
}

TEST(Follow, ADeviceThatRestartedIsAskedWhatItRuns) {
    for (const auto& [version, status] : {std::pair{"3.044", 0}, std::pair{"3.046", 3}}) {
        Device device;
        device.Script("/v1/status", {200, R"({"progress": null, "installedVersion": "3.044"})"});
        device.Play({kLive, "updatesystem", Step(90), true});
        device.Play({kLive});
        const auto program = device.Start(std::string("install --wait ") + version);
        EXPECT_EQ(program->Status(), status) << program->Errors();
    }
}

TEST(Follow, ADeviceThatGoesAwayOrFallsSilentIsGivenUp) {
    for (const bool goesAway : {true, false}) {
        Device device;
        device.Play({kLive, "updatesystem", Step(10)});
        const auto program = device.Start("install 3.046 --wait --timeout 10");
        ASSERT_TRUE(program->WaitForOutput("10 %"));
        if (goesAway) {
            device.GoDown();
        }
        EXPECT_EQ(program->Status(), 3);
        EXPECT_THAT(program->Errors(), HasSubstr(goesAway ? "not reachable" : "nothing more"));
    }
}

TEST(Follow, AnOperationOnAnAccessoryEndsAsTheDevicesLogTells) {
    const std::string closed = "12:00 I Install File Close /up/a.pkg Complete ";
    const std::string earlier = LogLine("old") + kOldDone + kLive;
    const std::string copyFailed = LogLine("4 Failed to copy update file from remote");
    // clang-format off
    const struct { const char* line; const char* keyword; std::string events; int status; const char* text; } cases[]{
        {"transfer 3.1 --to 4", "transfer", copyFailed + Step(40) + LogLine(closed + "SUCCESS"), 0, "done"},
        {"transfer 3.1 --to 4", "transfer", LogLine(closed + "FAILED"), 1, "Complete FAILED"},
        {"transfer 3.1 --to 4", "transfer", LogLine("Error on File write: full") + LogLine(closed + "SUCCESS"), 1, "full"},
        {"transfer 3.1 --to 4", "transfer", LogLine("Error on File write: full") + LogLine(closed + "FAILED"), 1, "full"},
        {"transfer 3.1 --to 4", "transfer", LogLine("Unable to publish File Close!"), 1, "File Close!"},
        {"transfer 3.1 --to 4", "transfer", LogLine("The transfer of /a ended after 1 of 2 bytes") + LogLine(closed + "SUCCESS"),
         1, "ended after 1 of 2"},
        {"transfer 3.1 --to 4", "transfer", kDone + LogLine("Error on File write: full") + LogLine(closed + "SUCCESS"), 1, "full"},
        {"remote-install --to 4", "remoteinstall", LogLine(closed + "SUCCESS") + copyFailed, 1, "Failed to copy"},
        {"remote-install --to 4", "remoteinstall", Step(7) + kDone, 0, "done"},
    };
    // clang-format on
    for (const auto& item : cases) {
        Device device;
        device.Play({earlier, item.keyword, item.events});
        const auto program = device.Start(std::string(item.line) + " --wait");
        EXPECT_EQ(program->Status(), item.status) << program->Errors();
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(item.text));
    }
}

TEST(Follow, AScanReportsTheOutcomeForItsFile) {
    const std::string rejection = R"(", "bSuccess": false, "ErrCode": "ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED"},)";
    const std::string offered = R"({"version": "3.046", "versionType": "System"})";
    // clang-format off
    const struct { const char* rejected; std::string offered; mode_t mode; int status; const char* text; } cases[]{
        {"/other.pkg", offered, 0755, 0, "accepted, new: 3.046\n"},
        {"", offered, 0755, 1, "rejected (version 3.1): this version is not allowed here"},
        {"/other.pkg", offered, 0644, 1, "not executable"},
    };
    // clang-format on
    for (const auto& item : cases) {
        Device device;
        const std::string file = device.Folder() + "/a.pkg";
        std::string records = R"({"messages": [{"version": "3.1", "versionType": ")";
        records.append(*item.rejected != 0 ? item.rejected : file).append(rejection).append(item.offered).append("]}");
        // Another file's announcement comes first; only the log tells that this one was accepted.
        const std::string earlier = Event("updateavailable", R"({"messages": []})");
        const std::string accepted = LogLine("x Package version <3.046 - " + file + "> greater than or equal to <3>");
        device.Play({Event("updateavailable", "{}") + kLive, "newFile",
                     (item.mode == 0755 ? earlier : "") + (item.status == 0 ? accepted : "") +
                         Event("updateavailable", records)});
        std::ofstream(file) << "x";
        chmod(file.c_str(), item.mode);
        const auto program = device.Start("scan " + file);
        EXPECT_EQ(program->Status(), item.status) << program->Errors();
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(item.text));
    }
}

TEST(Follow, AnUploadReportsTheOutcomeForItsFile) {
    const auto announced = [](const std::string& rejected) {
        return Event(
            "updateavailable",
            R"({"messages": [{"version": "3.046", "versionType": "System"}, {"version": "2", "versionType": ")" +
                rejected + R"(", "bSuccess": false, "text": "too old"}]})");
    };
    const std::string closing = LogLine("x Closing file /up/a.pkg");
    const std::string accepted = LogLine("x Package version <3.046 - /up/a.pkg> greater than or equal to <3>");
    const struct {
        std::string events;
        int status;
        const char* text;
    } cases[]{
        // A stick with a package of the same name is checked at the same time.
        {closing + announced("/usb/a.pkg") + accepted + announced("/usb/a.pkg"), 0,
         "/up/a.pkg: accepted, new: 3.046\n"},
        {closing + announced("/usb/a.pkg") + announced("/up/a.pkg"), 1, "/up/a.pkg: rejected (version 2): too old"},
        {announced("/up/b.pkg") + announced("/up/a.pkg"), 1, "a.pkg: rejected (version 2): too old"},
    };
    for (const auto& item : cases) {
        Device device;
        device.Play({Event("updateavailable", "{}") + kLive, "upload", item.events});
        std::ofstream(device.Folder() + "/a.pkg") << "x";
        const auto program = device.Start("upload a.pkg");
        EXPECT_EQ(program->Status(), item.status) << program->Errors();
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(item.text));
        EXPECT_EQ(device.Messages("/v1/upload", 3).back().at("className"), "ZFileCloseMsg");
    }
}

TEST(Follow, WatchShowsEveryKindOfEventUntilItIsInterrupted) {
    Device device;
    device.Play(
        {Event("storagedeviceupdate", R"({"addedDevices": ["/media/usb1"], "removedDevices": ["/media/u\u001b"]})") +
         Event("updateavailable", R"({"messages": [{"version": "3.1", "versionType": "System"}]})") +
         Event("peerupdate", R"({"name": "palm", "deviceModel": "QMD", "serialNumber": "4", "connected": true})") +
         Step(3)});
    const auto program = device.Start("watch");
    EXPECT_TRUE(program->WaitForOutput("  3 %  Install: Write\n"));
    program->Interrupt();
    EXPECT_EQ(program->Status(), 130);
    EXPECT_THAT(program->Output(),
                HasSubstr("drive attached: /media/usb1\ndrive removed: /media/u\\x1b\navailable: 3.1\n"
                          "device palm (QMD-4): connected\n"));
}

TEST(Follow, TheLogGoesOnWithoutLosingOrRepeatingALine) {
    Device device;
    device.Script("/v1/log", {200, R"({"lines": ["a", "b", "c"]})"});
    device.Play({LogLine("b") + LogLine("c"), "", LogLine("d") + Step(1) + LogLine("e")});
    const auto program = device.Start("log --follow");
    EXPECT_TRUE(program->WaitForOutput("e\n"));
    program->Interrupt();
    EXPECT_EQ(program->Status(), 130);
    EXPECT_EQ(program->Output(), "a\nb\nc\nd\ne\n");
    EXPECT_EQ(device.Messages("/v1/events", 1).front(), boost::json::value(true));
}

TEST(Follow, ARequestWithoutAnAnswerCanBeInterrupted) {
    Device device;
    device.Script("/v1/findupdates", {200, "{}", true});
    const auto program = device.Start("updates");
    device.Messages("/v1/findupdates", 1);
    program->Interrupt();
    EXPECT_EQ(program->Status(), 130);
}

}  // namespace
