#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <limits>
#include <thread>

#include "NodeFixture.h"
#include "ZShared/ZProcess.h"
#include "ZShared/ZUnixAddress.h"

// What a person is told about an install is so, whatever becomes of it.

namespace fs = std::filesystem;
using namespace testing;

namespace {

class InstallLife : public NodeFixture {
protected:
    InstallLife() { probe->Listen(ZEndpointType::Progress, ""); }

    /// Starts an install whose installer does as told, and then lives; its process id.
    pid_t Begin(const char* version = "3.045", const std::string& script = kLives) {
        Package(std::string(version) + ".pkg", version, 0, script);
        if (!node) {
            Start();
        }
        const auto answer = Install(UpdateTo(version));
        EXPECT_TRUE(answer && answer->m_bSuccess) << log.All();
        // The job's changes come on another way than the answer.
        const bool known = WaitUntil([&] { return Latest().m_Version == version && Latest().m_ProcessId > 0; });
        EXPECT_TRUE(known);
        return known ? Latest().m_ProcessId : std::numeric_limits<pid_t>::max();
    }
    ZOperationMsg& Latest() {
        m_latest = std::make_shared<ZOperationMsg>();
        for (const auto& job : Jobs()) {
            if (job->m_Kind == ZOperationKind::Install) {
                m_latest = job;
            }
        }
        return *m_latest;
    }
    void LeaveRecord(const std::string& operation, const std::string& outcome, const std::string& reason) {
        folder.Write("mount/Slots/last.json", R"({"operation":")" + operation + R"(","version":"3.045","outcome":")" +
                                                  outcome + R"(","reason":")" + reason + R"(","bootId":")" + BootId() +
                                                  "\"}");
    }
    std::shared_ptr<ZVersionInfoMsg> Ask(const char* version) { return AskForUpdate(UpdateTo(version)); }

private:
    std::shared_ptr<ZOperationMsg> m_latest;
};

TEST_F(InstallLife, IsNotTouchedByASecondRequest) {
    Package("b.pkg", "3.049");
    Begin();
    Installer installer(socket);
    installer.Say(R"({"percent":40,"message":"half"})");
    ASSERT_TRUE(probe->WaitForMessages(1));
    for (int again = 0; again < 2; ++again) {
        const auto refused = Ask("3.049");
        ASSERT_TRUE(refused);
        EXPECT_FALSE(refused->m_bSuccess);
        EXPECT_EQ(refused->m_ErrorCode, ZFrameworkErrorCodes::ERRCODE_BUSY);
        EXPECT_EQ(refused->m_ErrorText, "3.045 is being installed");
    }
    EXPECT_FALSE(fs::exists(Drive() / "b.pkg.args")) << "it did not run";
    EXPECT_TRUE(WaitForJob("Install 3.049 Failed: 3.045 is being installed"));
    installer.Say(R"({"percent":100,"done":true})");
    EXPECT_TRUE(WaitForJob("Install 3.045 Succeeded"));
    EXPECT_FALSE(Ask("3.049")->m_bSuccess) << "its process lives on: it restarts the device";
}

TEST_F(InstallLife, IsFollowedByOneThatIsOrderedWhileItsProcessEnds) {
    Package("b.pkg", "3.049");
    bool isTaken = false;
    for (int round = 0; round < 5 && !isTaken; ++round) {  // the node waits for some seconds only
        const std::string version = "3.05" + std::to_string(round);
        const fs::path ends = folder / ("ends" + version);
        Begin(version.c_str(), "while [ ! -e " + ends.string() + " ]; do sleep 0.01; done");
        Installer installer(socket);
        installer.Say(R"({"percent":100,"done":true})");
        ASSERT_TRUE(WaitForJob("Install " + version + " Succeeded"));
        std::jthread later([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            std::ofstream(ends) << "now";
        });
        isTaken = Ask("3.049")->m_bSuccess;
        later.join();
        ASSERT_TRUE(isTaken || WaitForNoRelay());
    }
    EXPECT_TRUE(isTaken) << log.All();
}

TEST_F(InstallLife, CountsItsOwnDocumentsOnly) {
    const pid_t first = Begin("3.045");
    Installer earlier(socket);
    earlier.Say(R"({"percent":10})");
    ASSERT_TRUE(probe->WaitForMessages(1));
    ::kill(first, SIGKILL);
    ASSERT_TRUE(WaitForJob("Install 3.045 Failed: the installer was ended by SIGKILL"));
    ASSERT_TRUE(WaitForNoRelay());
    Begin("3.046");
    EXPECT_TRUE(earlier.IsCutOff()) << "what it says can't be taken for the next install's";
    Installer installer(socket);
    installer.Say(R"({"percent":100,"done":true})");
    EXPECT_TRUE(WaitForJob("Install 3.046 Succeeded"));
}

TEST_F(InstallLife, IsSeenRightAfterOneThatCouldNotBeStarted) {
    const fs::path broken = Package("a.pkg", "3.040");
    Package("b.pkg", "3.045", 0, kLives);
    Start();
    ScanDrive();
    fs::permissions(broken, fs::perms::owner_read);
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(Ask("3.040")->m_ErrorCode, ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE);
    }
    EXPECT_TRUE(log.Has(2, "Software update command FAILURE"));
    EXPECT_TRUE(log.Has(4, "Unable to start install process. Kill the progress action"));
    EXPECT_TRUE(WaitForNoRelay());
    EXPECT_FALSE(fs::exists(socket));
    ASSERT_TRUE(Ask("3.045")->m_bSuccess);
    Installer installer(socket);
    installer.Say(R"({"percent":50,"message":"seen"})");
    ASSERT_TRUE(probe->WaitForMessages(1));
    EXPECT_TRUE(WaitUntil([&] { return Latest().m_Percent == 50; }));
    EXPECT_TRUE(WaitForJob("Install 3.040 Failed: the installer could not be started: " + broken.string() +
                           ": Permission denied"));
}

TEST_F(InstallLife, IsToldByTheEndOfItsProcessWhenNoDocumentTellsIt) {
    const std::tuple<const char*, const char*, const char*> rows[]{
        {"3.045", "exit 3", "Failed: the installer ended with status 3"},
        {"3.046", "kill -9 $$", "Failed: the installer was ended by SIGKILL"},
        {"3.047", "exit 0", "Succeeded"}};
    for (const auto& [version, script, end] : rows) {
        Begin(version, script);
        EXPECT_TRUE(WaitForJob("Install " + std::string(version) + " " + end));
        EXPECT_TRUE(WaitForNoRelay()) << "and the next one is seen";
    }
    // A last document that is too long for one read is none.
    const pid_t process = Begin("3.048");
    Installer installer(socket);
    installer.Say(R"({"done":true,"message":")" + std::string(2000, 'x') + "\"}");
    ASSERT_TRUE(log.WaitFor(4, "Could not set JSON comm stream data dropping message"));
    ::kill(process, SIGTERM);
    EXPECT_TRUE(WaitForJob("Install 3.048 Failed: the installer was ended by SIGTERM"));
}

TEST_F(InstallLife, IsToldByTheRecordThatItsInstallerLeft) {
    const std::tuple<const char*, const char*, const char*> rows[]{
        {"3.045", "succeeded", "Succeeded"},
        {"3.046", "failed", "Failed: no space"},
        {"3.047", "running", "Failed: the installer ended with status 0 before it had finished"},
        {"3.048", "cancelled", "Cancelled: no space"}};
    for (const auto& [version, outcome, end] : rows) {
        const fs::path gate = Drive() / (std::string(version) + ".gate");
        Begin(version, "while [ ! -e '" + gate.string() + "' ]; do sleep 0.05; done");
        LeaveRecord(ToStdString(Latest().m_Id), outcome, outcome == std::string("succeeded") ? "" : "no space");
        std::ofstream(gate).put('x');
        EXPECT_TRUE(WaitForJob("Install " + std::string(version) + " " + end));
        EXPECT_TRUE(WaitForNoRelay());
    }
    LeaveRecord("another", "failed", "not this one's");
    Begin("3.049", "exit 0");
    EXPECT_TRUE(WaitForJob("Install 3.049 Succeeded")) << "of another install it tells nothing";
}

TEST_F(InstallLife, EndsThoughSomebodyWritesOnAfterIt) {
    const pid_t process = Begin();
    std::atomic<bool> stop{false};
    ZFileDescriptor flood(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto address = ZUnixAddress::Of(socket.string());
    ASSERT_EQ(::connect(flood.Get(), address->Get(), ZUnixAddress::Size()), 0);
    std::thread writer([&] {
        const std::string text = R"({"percent":1})";
        while (!stop && ::send(flood.Get(), text.data(), text.size(), MSG_NOSIGNAL) > 0) {
        }
    });
    EXPECT_TRUE(probe->WaitForMessages(1));
    ::kill(process, SIGKILL);
    EXPECT_TRUE(WaitForJob("Install 3.045 Failed: the installer was ended by SIGKILL"));
    EXPECT_TRUE(WaitForNoRelay()) << "the next install would be refused";
    stop = true;
    ::shutdown(flood.Get(), SHUT_RDWR);  // wakes it
    writer.join();
}

TEST_F(InstallLife, EndsWhatItsInstallerLeftBehindWhenThatWasKilled) {
    const std::string worker = (folder / "worker").string();
    const pid_t process =
        Begin("3.045", "sleep 600 & echo $! > " + worker + ".new; mv " + worker + ".new " + worker + "; wait");
    ASSERT_TRUE(WaitUntil([&] { return fs::exists(worker); }));
    const pid_t child = std::stoi(ReadText(worker));
    ASSERT_TRUE(FindProcess(child));
    ::kill(process, SIGKILL);
    EXPECT_TRUE(WaitForJob("Install 3.045 Failed: the installer was ended by SIGKILL"));
    EXPECT_TRUE(WaitUntil([&] { return !FindProcess(child); })) << "what is told as failed must not go on";
}

TEST_F(InstallLife, IsKnownToTheJournalBeforeItsInstallerBegins) {
    std::atomic<bool> asked = false;
    std::atomic<bool> began = false;
    probe->Listen(ZEndpointType::GraphService, "operations", [&](const std::shared_ptr<ZMessage>& message) {
        if (const auto request = cast_shared<ZOperationsRequestMsg>(message); !request->m_Id.empty()) {
            asked = true;
            began = fs::exists(Drive() / "3.045.pkg.args");
        }
        return Z_MAKE(ZOperationsMsg);
    });
    Begin();
    EXPECT_TRUE(asked);
    EXPECT_FALSE(began) << "a host that ends now would not find it again";
}

TEST_F(InstallLife, IsJudgedOnceNobodyHoldsTheSlots) {
    Package("b.pkg", "3.049");
    const fs::path slots = folder / "mount/Slots";
    const pid_t process = Begin();
    fs::create_directories(slots / "B");
    ZFileDescriptor heldByItsLoader(::open(slots.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(::flock(heldByItsLoader.Get(), LOCK_EX | LOCK_NB), 0);
    folder.Write("mount/Slots/last.json", R"({"operation":")" + ToStdString(Latest().m_Id) +
                                              R"(","version":"3.045","outcome":"running","slot":"B"})");
    ::kill(process, SIGKILL);
    ASSERT_TRUE(WaitUntil([&] { return !FindProcess(process); }));
    EXPECT_EQ(Ask("3.049")->m_ErrorText, "3.045 is being installed");
    fs::create_directory_symlink("B", slots / "active");  // what was begun is done, late
    heldByItsLoader.Reset();
    EXPECT_TRUE(WaitForJob("Install 3.045 Succeeded"));
}

TEST_F(InstallLife, GoesOnAfterARestartOfTheHost) {
    const pid_t process = Begin();
    const auto left = cast_shared<ZOperationMsg>(ZNodeComm::CloneMessage(std::make_shared<ZOperationMsg>()));
    left->CloneDataMembers(Latest());
    std::vector<std::shared_ptr<ZOperationMsg>> open{left};
    const auto restart = [&] {
        Restart();
        probe->Listen(ZEndpointType::Progress, "");
        probe->Listen(ZEndpointType::GraphService, "operations", [&](const auto&) {
            const auto answer = Z_MAKE(ZOperationsMsg);
            answer->m_Operations.assign(open.begin(), open.end());
            return answer;
        });
        Start();
    };
    restart();
    EXPECT_EQ(FindProcess(process).value_or(ZProcessId{}).id, process) << "the installer went on meanwhile";
    EXPECT_TRUE(Tables().UpdateInProgress());
    Installer installer(socket);
    installer.Say(R"({"percent":70,"message":"still here"})");
    ASSERT_TRUE(WaitUntil([&] { return Latest().m_Percent == 70; }));
    EXPECT_EQ(Latest().m_Id, left->m_Id);
    ScanDrive();
    EXPECT_EQ(Ask("3.045")->m_ErrorCode, ZFrameworkErrorCodes::ERRCODE_BUSY);
    restart();  // once more, and now its end is not this host's child's either
    LeaveRecord(ToStdString(left->m_Id), "failed", "the disk is full");
    ::kill(process, SIGKILL);
    EXPECT_TRUE(WaitForJob("Install 3.045 Failed: the disk is full"));
    // What ended while the host was away: told by the record, or not known.
    restart();
    EXPECT_TRUE(WaitForJob("Install 3.045 Failed: the disk is full"));
    EXPECT_EQ(Latest().m_Took, 0) << "nobody knows when it ended";
    LeaveRecord(ToStdString(left->m_Id), "running", "");
    restart();
    EXPECT_TRUE(WaitForJob("Install 3.045 Failed: the installer was ended before it had finished"));
    fs::remove(folder / "mount/Slots/last.json");
    restart();
    EXPECT_TRUE(
        WaitForJob("Install 3.045 Lost: the installer ended while nobody watched it, and left no record of how"));
    EXPECT_EQ(Latest().m_Took, 0);
}

TEST_F(InstallLife, IsCancelledByAnybodyAndTheInstallerPutsThingsInOrder) {
    const std::string tidy = (folder / "tidy").string();
    const std::string ready = (folder / "ready").string();
    Begin("3.045",
          "trap 'touch " + tidy + "; exit 1' TERM; touch " + ready + "; while [ -e \"$0\" ]; do sleep 0.05; done");
    ASSERT_TRUE(WaitUntil([&] { return fs::exists(ready); }));
    Cancel(Latest().m_Id, "user alice");
    EXPECT_TRUE(WaitForJob("Install 3.045 Cancelled: cancelled by user alice"));
    EXPECT_TRUE(fs::exists(tidy));
    Begin("3.046", "exit 0");
    EXPECT_TRUE(WaitForJob("Install 3.046 Succeeded")) << "the next one is another";
}

TEST_F(InstallLife, IsRefusedBeforeItsInstallerStartsWhenItsProgressCouldNotBeSeen) {
    const fs::path package = Package("a.pkg", "3.045");
    for (const std::string& name : {std::string("taken"), std::string(120, 'x')}) {
        Start("\"ProgressPath\":\"" + name + '"');
        fs::create_directories(folder / "mount/Archive/taken");
        const auto answer = Install(UpdateTo("3.045"));
        ASSERT_TRUE(answer);
        EXPECT_FALSE(answer->m_bSuccess);
        EXPECT_EQ(answer->m_ErrorCode, ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST);
        EXPECT_THAT(ToStdString(answer->m_ErrorText), HasSubstr(name + ": "));
        EXPECT_TRUE(WaitForJobLike("Install 3.045 Failed: its progress can't be shown: "));
        const auto elsewhere = UpdateTo("3.045");
        elsewhere->m_ProgressHost = "palm";
        EXPECT_TRUE(Install(elsewhere)->m_bSuccess) << "one that reports to another device needs no socket here";
        ASSERT_TRUE(WaitUntil([&] { return fs::exists(package.string() + ".args"); }));
        EXPECT_EQ(ReadText(package.string() + ".args").find("--sock=1"), std::string::npos) << "the first did not run";
        fs::remove(package.string() + ".args");
        if (name == "taken") {
            ASSERT_TRUE(WaitForJob("Install 3.045 Succeeded"));
            fs::remove(folder / "mount/Archive/taken");
            EXPECT_TRUE(Install(UpdateTo("3.045"))->m_bSuccess) << "what was in the way has gone";
            ASSERT_TRUE(WaitUntil([&] { return fs::remove(package.string() + ".args"); }));
        }
        Restart();
    }
}

TEST_F(InstallLife, IsNotBegunForSomebodyWhoHasGone) {
    Package("a.pkg", "3.045");
    Start();
    ScanDrive();
    // The node is busy with something else when the request comes, and its asker does not wait so long.
    const auto entered = std::make_shared<std::promise<void>>();
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::thread holder([&] {
        const auto hold = [entered, released] {
            entered->set_value();
            released.wait();
        };
        node->CallOnMessageThread(hold, ZClock::now() + std::chrono::minutes(1));
    });
    entered->get_future().wait();
    std::shared_ptr<ZMessage> answer;
    const auto endpoint = probe->GetEndpoint(ZEndpointType::ClientRequest, "updatesystem", 0);
    const auto outcome =
        probe->PublishWithOutcome(endpoint, UpdateTo("3.045"), &answer, {true, false, std::chrono::milliseconds(200)});
    EXPECT_EQ(outcome, ZPublishOutcome::NoAnswer);
    release.set_value();
    holder.join();
    EXPECT_TRUE(log.WaitFor(3, "Installing 3.045 is not begun: whoever asked for it has gone"));
    EXPECT_TRUE(WaitForJob("Install 3.045 Cancelled: whoever asked for it has gone"));
    EXPECT_FALSE(fs::exists(Drive() / "a.pkg.args"));
}

}  // namespace
