#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <tuple>

#include "Conversation.h"

namespace {

using namespace testing;

#define OURS "aaaa0000aaaa0000"
#define OTHER "bbbb0000bbbb0000"
const std::string kLive = ": live\n\n";

/// A job's document; `more` are members beside, each with a comma before.
std::string JobDocument(const char* id, const char* kind, const char* state, const std::string& more = "") {
    return std::string(R"({"id": ")") + id + R"(", "kind": ")" + kind + R"(", "state": ")" + state + '"' + more + "}";
}
std::string Told(const char* id, const char* kind, const char* state, const std::string& more = "") {
    return Event("operation", JobDocument(id, kind, state, more));
}
std::string Step(const char* id, int percent, const char* state = "Running") {
    return Told(id, "Install", state,
                R"(, "header": "Install", "message": "Write", "percent": )" + std::to_string(percent));
}
std::string Because(const std::string& reason) {
    return R"(, "reason": ")" + reason + '"';
}
std::string OfFile(const std::string& file, const std::string& more = "") {
    return R"(, "file": ")" + file + '"' + more;
}

/// A device that is ready for everything that is tested here.
struct Device : ScriptedGateway {
    Device() {
        Script("/v1/updatesystem", {200, R"({"bSuccess": true, "operationId": ")" OURS R"("})"});
        Script("/v1/transfer", {200, R"({"bSuccess": true, "operationId": ")" OURS R"("})"});
        Script("/v1/remoteinstall", {200, R"({"messages": [{"bSuccess": true}], "operationId": ")" OURS R"("})"});
        Script("/v1/scan", {202, R"({"operationId": ")" OURS R"("})"});
        Script("/v1/upload", {200, R"({"bSuccess": true})"});
        Script("/v1/inventory", {200, R"({"updatesFolder": "/up/"})"});
        Script("/v1/operations", {200, R"({"operations": []})"});
        Script("/v1/cancel", {202, ""});
    }
    [[nodiscard]] std::unique_ptr<Program> Start(const std::string& line) const {
        return std::make_unique<Program>(Folder(), "--socket " + Socket() + " " + line);
    }
};

TEST(Follow, AJobIsShownToItsOwnEndWhateverOthersTell) {
    Device device;
    device.Play({Step(OTHER, 99, "Succeeded") + kLive, "updatesystem",
                 Step(OTHER, 50) + Step(OURS, 10) + Step(OTHER, 99, "Failed") + Event("progress", R"({"done": true})") +
                     Step(OURS, 40) + Step(OTHER, 100, "Succeeded") + Step(OURS, 100, "Succeeded")});
    const auto program = device.Start("install 3.046 --wait");
    EXPECT_EQ(program->Status(), 0) << program->Errors();
    EXPECT_EQ(program->Output(),
              "Installing 3.046: started\n"
              " 10 %  Install: Write\n 40 %  Install: Write\n100 %  Install: Write (done)\n"
              "Installing 3.046: done\n");
}

TEST(Follow, TheEndOfAJobIsTheEndOfTheCommand) {
    // clang-format off
    const struct { const char* line; const char* keyword; const char* kind; const char* state; const char* reason; int status; const char* text; } cases[]{
        {"install 3.1", "updatesystem", "Install", "Succeeded", "", 0, "Installing 3.1: done\n"},
        {"install 3.1", "updatesystem", "Install", "Failed", "slot B broke", 1, "Installing 3.1: slot B broke"},
        {"install 3.1", "updatesystem", "Install", "Cancelled", "cancelled by user bob", 1, "3.1: cancelled by user bob\n"},
        {"install 3.1", "updatesystem", "Install", "Cancelled", "the stick went", 1, "3.1: cancelled: the stick went"},
        {"install 3.1", "updatesystem", "Install", "Lost", "arbord was restarted", 3, "not known: arbord was restarted"},
        {"transfer 3.1 --to 4", "transfer", "Transfer", "Succeeded", "", 0, "done\n"},
        {"transfer 3.1 --to 4", "transfer", "Transfer", "Failed", "disk full", 1, "to 4: disk full"},
        {"remote-install --to 4", "remoteinstall", "RemoteInstall", "Failed", "", 1, "on 4: it does not say why"},
    };
    // clang-format on
    for (const auto& item : cases) {
        Device device;
        device.Play({kLive, item.keyword,
                     Told(OTHER, item.kind, "Failed") + Told(OURS, item.kind, item.state, Because(item.reason))});
        const auto program = device.Start(std::string(item.line) + " --wait");
        EXPECT_EQ(program->Status(), item.status) << item.state;
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(item.text));
    }
}

TEST(Follow, ProgramsGetTheOwnJobsDocumentsAndTheReason) {
    Device device;
    device.Play(
        {kLive, "updatesystem", Step(OTHER, 5) + Step(OURS, 10) + Told(OURS, "Install", "Failed", Because("x"))});
    const auto program = device.Start("install 3.046 --wait --json");
    EXPECT_EQ(program->Status(), 1);
    EXPECT_THAT(program->Output(), Not(HasSubstr(OTHER)));
    EXPECT_THAT(program->Output(), HasSubstr(R"("percent":10)"));
    EXPECT_THAT(program->Output(), HasSubstr(R"({"error":"Installing 3.046: x","exitCode":1})"));
}

TEST(Follow, AfterABreakTheDeviceIsAskedWhatBecameOfTheJob) {
    const std::string running = JobDocument(OURS, "Install", "Running", R"(, "message": "Sync", "percent": 60)");
    const std::string done = JobDocument(OURS, "Install", "Succeeded");
    const std::string lost = JobDocument(OURS, "Install", "Lost", Because("arbord was restarted"));
    const std::string unknown = R"({"title": "Not Found", "detail": "no such job"})";
    const std::string noJournal = R"({"detail": "No node of this graph keeps the jobs"})";
    // What the device answers, what it tells afterwards, and how the program ends.
    // clang-format off
    const std::tuple<int, std::string, std::string, int, const char*> cases[]{
        {200, running, Step(OTHER, 9, "Failed") + Step(OURS, 70) + Step(OURS, 100, "Succeeded"), 0,
         " 10 %  Install: Write\n 60 %  Sync\n 70 %  Install: Write\n100 %"},
        {200, done, "", 0, "done\n"},
        {200, lost, "", 3, "arbord was restarted"},
        {404, unknown, "", 3, "no longer tells of it: Not Found: no such job"},
        {503, noJournal, Step(OTHER, 100, "Succeeded"), 3, "this device has no journal (NodeJournal) in its graph"},
    };
    // clang-format on
    for (const auto& [code, answer, later, status, text] : cases) {
        Device device;
        device.Script("/v1/operations/" OURS, {code, answer});
        device.Play({kLive, "updatesystem", Step(OURS, 10) + "data: {\"ha", true});
        device.Play({Step(OTHER, 99, "Succeeded") + kLive, "", later});
        const auto program = device.Start("install 3.046 --wait --timeout 10");
        EXPECT_EQ(program->Status(), status) << program->Errors();
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(text));
    }
}

TEST(Follow, ADeviceThatGoesAwayFallsSilentOrNamesNoJobIsGivenUp) {
    for (const bool goesAway : {true, false}) {
        Device device;
        device.Play({kLive, "updatesystem", Step(OURS, 10)});
        const auto program = device.Start("install 3.046 --wait --timeout 10");
        ASSERT_TRUE(program->WaitForOutput("10 %"));
        if (goesAway) {
            device.GoDown();
        }
        EXPECT_EQ(program->Status(), 3);
        EXPECT_THAT(program->Errors(), HasSubstr(goesAway ? "how it ended is not known" : "nothing more"));
    }
    Device device;
    device.Script("/v1/updatesystem", {200, R"({"bSuccess": true})"});
    device.Play({kLive, "updatesystem", Step(OTHER, 100, "Succeeded")});
    EXPECT_EQ(device.Start("install 3.046 --wait")->Status(), 3);
}

TEST(Follow, AScanTellsTheOutcomeOfItsOwnCheck) {
    // clang-format off
    const std::tuple<const char*, std::string, mode_t, int, const char*> cases[]{
        {"Succeeded", R"(, "version": "3.046")", 0755, 0, "a.pkg: accepted, version 3.046\n"},
        {"Failed", R"(, "version": "3.1")" + Because("it is older"), 0755, 1, "rejected (version 3.1): it is older"},
        {"Cancelled", Because("its drive was removed"), 0755, 1, "cancelled: its drive was removed"},
        {"Succeeded", "", 0644, 1, "not executable"},  // a device that tells of no policy
        {"Succeeded", "", 0640, 1, "not executable"},  // one whose policy is off
        {"Succeeded", R"(, "version": "3.046")", 0600, 0, "a.pkg: accepted, version 3.046\n"},
    };
    // clang-format on
    for (const auto& [state, more, mode, status, text] : cases) {
        Device device;
        if (mode != 0644) {
            device.Script("/v1/trust",
                          {200, mode == 0600 ? R"({"trustedSigners": "/t"})" : R"({"trustedSigners": ""})"});
        }
        const std::string file = device.Folder() + "/a.pkg";
        const char* const opposite = status == 0 ? "Failed" : "Succeeded";
        device.Play({kLive, "scan",
                     Told(OTHER, "Check", opposite, OfFile(file)) + Told(OURS, "Check", "Running", OfFile(file)) +
                         Told(OURS, "Check", state, OfFile(file, more))});
        std::ofstream(file) << "x";
        chmod(file.c_str(), mode);
        const auto program = device.Start("scan " + file);
        EXPECT_EQ(program->Status(), status) << program->Errors();
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(text));
    }
    Device device;
    device.Play({kLive, "scan", Told(OURS, "Scan", "Succeeded", OfFile(device.Folder()))});
    const auto program = device.Start("scan " + device.Folder() + "/.");
    EXPECT_EQ(program->Status(), 0) << program->Errors();
    EXPECT_THAT(program->Output(), HasSubstr(": scanned"));
    EXPECT_EQ(device.Messages("/v1/scan", 1).front().at("path").as_string(), device.Folder() + "/");
}

TEST(Follow, AScanOutsideOfWhatIsWatchedIsRefusedWithTheReason) {
    Device device;
    device.Script("/v1/scan",
                  {403, R"({"title": "Forbidden", "detail": "/x is neither on a drive", "field": "path"})"});
    device.Play({kLive, "", "", false, 0});
    const auto program = device.Start("scan " + device.Folder());
    EXPECT_EQ(program->Status(), 1);
    EXPECT_THAT(program->Errors(), HasSubstr("Forbidden: /x is neither on a drive"));
}

TEST(Follow, AnUploadTellsTheOutcomeOfTheCheckThatItBegan) {
    const std::string refused = OfFile("/up/a.pkg", R"(, "version": "2")" + Because("too old"));
    // A check of the file before, one that the journal knows, and one of the same name on a stick.
    const std::string before = Told("0001", "Check", "Running", OfFile("/up/a.pkg"));
    const std::string others = Told("0001", "Check", "Failed", refused) + Told("0002", "Check", "Failed", refused) +
                               Told("0003", "Check", "Failed", OfFile("/usb/a.pkg")) +
                               Told("0004", "Scan", "Failed", refused);
    const std::string jobs = R"({"operations": [)" + JobDocument("0002", "Check", "Running") + "]}";
    const auto accepted = OfFile("/up/a.pkg", R"(, "version": "3")");
    const std::tuple<std::string, int, std::string, int, const char*> cases[]{
        {others + Told(OURS, "Check", "Running", accepted) + Told(OURS, "Check", "Succeeded", accepted), 200, jobs, 0,
         "/up/a.pkg: accepted, version 3\n"},
        {others + Told(OURS, "Check", "Failed", refused), 200, jobs, 1, "/up/a.pkg: rejected (version 2): too old"},
        {Told("0001", "Check", "Failed", refused) + Told(OURS, "Check", "Succeeded", accepted), 503, "{}", 0,
         "accepted, version 3\n"},
    };
    for (const auto& [events, code, operations, status, text] : cases) {
        Device device;
        device.Script("/v1/operations", {code, operations});
        device.Play({before + kLive, "upload", events, false, 3});  // open, write, close
        std::ofstream(device.Folder() + "/a.pkg") << "x";
        const auto program = device.Start("upload a.pkg");
        EXPECT_EQ(program->Status(), status) << program->Errors();
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(text));
        EXPECT_EQ(device.Messages("/v1/upload", 3).back().at("className"), "ZFileCloseMsg");
    }
}

TEST(Follow, CancellingEndsWithTheJob) {
    const std::string running = JobDocument(OURS, "Install", "Running", R"(, "version": "3.1")");
    const std::tuple<std::string, std::string, int, const char*> cases[]{
        {running, Told(OURS, "Install", "Cancelled", Because("cancelled by user bob")), 0,
         "install 3.1: cancelled by user bob\n"},
        {running, Told(OURS, "Install", "Succeeded"), 1, "not cancelled, it had succeeded by then"},
        {running, Told(OURS, "Install", "Failed", Because("no power")), 1, "not cancelled, it failed: no power"},
        {running, Told(OURS, "Install", "Lost", Because("restart")), 3, "not known: restart"},
        {JobDocument(OURS, "Install", "Failed", R"(, "version": "3.1")"), "", 1, "it has ended already: failed"},
    };
    for (const auto& [now, later, status, text] : cases) {
        Device device;
        device.Script("/v1/operations/aaaa", {200, now});
        device.Play({kLive, "cancel", Told(OTHER, "Install", "Cancelled") + later});
        const auto program = device.Start("cancel aaaa");
        EXPECT_EQ(program->Status(), status) << program->Errors();
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(text));
        if (!later.empty()) {
            EXPECT_EQ(device.Messages("/v1/cancel", 1).front().at("id"), OURS) << "the whole id";
        }
    }
}

TEST(Follow, WatchShowsEveryKindOfEventUntilItIsInterrupted) {
    Device device;
    device.Play(
        {Event("storagedeviceupdate", R"({"addedDevices": ["/media/usb1"], "removedDevices": ["/media/u\u001b"]})") +
         Event("updateavailable", R"({"messages": [{"version": "3.1", "versionType": "System"}]})") +
         Event("peerupdate", R"({"name": "palm", "deviceModel": "QMD", "serialNumber": "4", "connected": true})") +
         Told(OURS, "Check", "Running", OfFile("/a")) + Told(OURS, "Check", "Running", OfFile("/a")) +
         Told(OURS, "Check", "Failed", OfFile("/a", Because("bad"))) +
         Event("progress", R"({"header": "Install", "message": "Write", "percent": 3})")});
    const auto program = device.Start("watch");
    EXPECT_TRUE(program->WaitForOutput("  3 %  Install: Write\n"));
    program->Interrupt();
    EXPECT_EQ(program->Status(), 130);
    EXPECT_THAT(program->Output(),
                HasSubstr("drive attached: /media/usb1\ndrive removed: /media/u\\x1b\navailable: 3.1\n"
                          "device palm (QMD-4): connected\n"
                          "job aaaa0000: check /a: running\njob aaaa0000: check /a: failed: bad\n"));
}

TEST(Follow, AStreamThatIsRefusedSaysWhy) {
    Device device;
    device.Script("/v1/events", {403, R"({"title": "Forbidden", "detail": "user bob may not look"})"});
    const auto program = device.Start("watch");
    EXPECT_EQ(program->Status(), 1);
    EXPECT_THAT(program->Errors(), HasSubstr("user bob may not look"));
}

std::string LogEntry(int number, int level = 2) {
    return R"({"number": )" + std::to_string(number) + R"(, "time": 86400000, "level": )" + std::to_string(level) +
           R"(, "channel": "Node", "text": "line )" + std::to_string(number) + R"("})";
}

TEST(Follow, TheLogGoesOnWithoutLosingOrRepeatingALine) {
    Device device;
    device.Script("/v1/log", {200, R"({"entries": [)" + LogEntry(1) + "," + LogEntry(3) + "]}"});
    device.Play({Event("log", LogEntry(2)) + Event("log", LogEntry(3)), "",
                 Event("log", LogEntry(4, 1)) + Event("log", LogEntry(6)) + Event("log", LogEntry(5, 4)), true});
    device.Play({kLive, "", Event("log", LogEntry(1, 3)), false});  // it has started anew
    const auto program = device.Start("log --follow");
    EXPECT_TRUE(program->WaitForOutput("warning Node: line 1\n"));
    program->Interrupt();
    EXPECT_EQ(program->Status(), 130);
    EXPECT_THAT(program->Output(),
                MatchesRegex("1970[^\n]*:00\\.000 info    Node: line 1\n[^\n]* line 3\n[^\n]* line 6\n"
                             "[^\n]*error   Node: line 5\n[^\n]*warning Node: line 1\n"));
    EXPECT_EQ(device.Messages("/v1/events", 1).front(), boost::json::value(true));
}

TEST(Follow, ARequestWithoutAnAnswerCanBeInterrupted) {
    Device device;
    device.Script("/v1/inventory", {200, "{}", true});
    const auto program = device.Start("updates");
    device.Messages("/v1/inventory", 1);
    program->Interrupt();
    EXPECT_EQ(program->Status(), 130);
    device.Script("/v1/updatesystem", {200, "{}", true});
    const auto order = device.Start("--timeout 1 install 3.045");
    EXPECT_EQ(order->Status(), 3);
    EXPECT_THAT(order->Errors(), HasSubstr("whether it was done is not known (arborctl history)"));
}

}  // namespace
