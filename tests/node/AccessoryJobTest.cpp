#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "NodeFixture.h"

// What is told about work on accessories is so, and no work stands in another's way.

namespace fs = std::filesystem;
using namespace testing;

namespace {

class AccessoryJobs : public NodeFixture {
protected:
    /// An accessory "P1" at 127.0.0.1 on which every command works; others are not found.
    void StartWithAccessory(const std::string& config) {
        InstallSystem("3.044");
        Archive("3.044");
        Program("avahi-resolve", "case $3 in KiteQM-P1.local) echo \"$3\t127.0.0.1\";; esac");
        Program("hostname", "echo cart");
        Program("ssh", ":");
        Program("rsync", ":");
        Start(R"("ProgressPort":)" + std::to_string(port) + (config.empty() ? "" : "," + config));
    }
    /// Connects to the relay from that address of this machine.
    ZFileDescriptor Connect(const char* from) const {
        sockaddr_in own{};
        own.sin_family = AF_INET;
        ::inet_pton(AF_INET, from, &own.sin_addr);
        sockaddr_in relay = own;
        relay.sin_port = htons(port);
        ::inet_pton(AF_INET, "127.0.0.1", &relay.sin_addr);
        ZFileDescriptor connection;
        EXPECT_TRUE(WaitUntil([&] {
            connection.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            return ::bind(connection.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0 &&
                   ::connect(connection.Get(), reinterpret_cast<const sockaddr*>(&relay), sizeof relay) == 0;
        }));
        return connection;
    }
    static void Say(const ZFileDescriptor& connection, const std::string& text) {
        ::send(connection.Get(), text.data(), text.size(), MSG_NOSIGNAL);
    }
    bool WaitForPercent(std::int32_t percent) {
        return WaitUntil(
            [&] { return std::ranges::any_of(Jobs(), [&](const auto& job) { return job->m_Percent == percent; }); });
    }
    /// Of this process alone, and below those that the kernel hands out: tests run beside each other.
    const std::uint16_t port = static_cast<std::uint16_t>(10'000 + ::getpid() % 20'000);
};

TEST_F(AccessoryJobs, FailWhenTheAccessoryFallsSilentAndOthersGoOn) {
    StartWithAccessory(R"("AccessoryPatienceSeconds":3)");
    const char* const end =
        "RemoteInstall 3.044 Failed: the installer on the accessory (127.0.0.1) does not report any more: whether it "
        "goes on is not known";
    ASSERT_TRUE(InstallOn("P1")->m_bSuccess);
    EXPECT_TRUE(WaitForJob(end)) << "its installer never reported";
    EXPECT_TRUE(WaitUntil([&] { return !Tables().UpdateInProgress(); }));
    ASSERT_TRUE(InstallOn("P1")->m_bSuccess);
    {
        const auto installer = Connect("127.0.0.1");
        Say(installer, R"({"percent":33,"message":"half"})");
        ASSERT_TRUE(WaitForPercent(33));
        // Meanwhile this device installs for itself, and its progress is seen.
        Package("a.pkg", "3.045", 0, kLives);
        ASSERT_TRUE(Install(UpdateTo("3.045"))->m_bSuccess);
        Installer own(socket);
        own.Say(R"({"percent":100,"done":true})");
        EXPECT_TRUE(WaitForJob("Install 3.045 Succeeded"));
        EXPECT_TRUE(WaitForJob("RemoteInstall 3.044 Running"));
    }
    EXPECT_TRUE(WaitUntil([&] {
        const auto lines = JobLines();
        return std::ranges::count(lines, end) == 2;
    })) << "it went away";
}

TEST_F(AccessoryJobs, HaveAStateEachAndTakeDocumentsFromTheirAccessoryOnly) {
    StartWithAccessory("");
    ASSERT_TRUE(InstallOn("P1")->m_bSuccess);
    const auto installer = Connect("127.0.0.1");
    Say(installer, R"({"percent":20})");
    ASSERT_TRUE(WaitForPercent(20));
    EXPECT_FALSE(InstallOn("P2")->m_bSuccess);
    EXPECT_TRUE(WaitForJob("RemoteInstall 3.044 Failed: the accessory was not found in the network"));
    EXPECT_TRUE(Tables().UpdateInProgress()) << "the first goes on";
    const auto second = InstallOn("P1");
    EXPECT_EQ(second->m_ErrorCode, ZFrameworkErrorCodes::ERRCODE_BUSY);
    EXPECT_TRUE(WaitForJob("RemoteInstall 3.044 Failed: another accessory is being installed"));
    const auto stranger = Connect("127.0.0.7");
    Say(stranger, R"({"percent":100,"done":true})");
    EXPECT_TRUE(log.WaitFor(3, "Progress from 127.0.0.7 is refused: 127.0.0.1 is being installed"));
    Say(installer, R"({"percent":60})");
    ASSERT_TRUE(WaitForPercent(60)) << "nothing ended it";
    Say(installer, R"({"percent":100,"done":true})");
    EXPECT_TRUE(WaitForJob("RemoteInstall 3.044 Succeeded"));
    EXPECT_TRUE(WaitUntil([&] { return !Tables().UpdateInProgress(); }));
}

TEST_F(AccessoryJobs, AreKnownToTheJournalBeforeAnythingIsDoneOnTheAccessory) {
    StartWithAccessory("");
    Program("ssh", "touch " + (folder / "reached").string());
    std::atomic<int> asked = 0;
    std::atomic<bool> wasReached = false;
    probe->Listen(ZEndpointType::GraphService, "operations", [&](const std::shared_ptr<ZMessage>& message) {
        if (const auto request = cast_shared<ZOperationsRequestMsg>(message); !request->m_Id.empty()) {
            wasReached = fs::exists(folder / "reached");
            ++asked;
        }
        return Z_MAKE(ZOperationsMsg);
    });
    ASSERT_TRUE(InstallOn("P1")->m_bSuccess);
    ASSERT_TRUE(WaitUntil([&] { return fs::exists(folder / "reached"); }));
    EXPECT_EQ(asked, 1);
    EXPECT_FALSE(wasReached) << "a host that ends now would not know that something goes on there";
}

TEST_F(AccessoryJobs, BuildForEachBoardAndSendNoneToAnother) {
    InstallSystem("3.044");
    Archive("3.044");
    folder.Write("mount/Archive/3.044/installer/installer.py",
                 "#!/bin/sh\ncd \"${0%/*}/..\"; [ $3 = lazy ] || echo for $3 > $5\n", 0755);
    Start();
    const auto check = [&](const char* board, ZDeviceModel model) {
        CheckFit("3.010", board, model);
        EXPECT_TRUE(WaitUntil([&] { return !Tables().BuildInProgress(); }));
    };
    const auto transfer = [&](ZDeviceModel model) { return Transfer("3.044", "", model); };
    check("verdin-imx8mm", ZDeviceModel::QMA);
    EXPECT_TRUE(log.Has(2, "Skipping build because we already have it")) << "the archive's is for that board";
    check("apalis-imx8", ZDeviceModel::QMB);
    EXPECT_TRUE(WaitForJob("Build 3.044 Succeeded"));
    EXPECT_EQ(ReadText(folder / "mount/Archive/3.044/arbor_kite.pkg"), "for apalis-imx8\n");
    // Its program ends well and leaves nothing new: what lies there is another board's.
    check("lazy", ZDeviceModel::QMC);
    EXPECT_TRUE(WaitForJobLike("Build 3.044 Failed: the installer's script ended well and left no new "));
    check("lazy", ZDeviceModel::QMC);
    EXPECT_TRUE(WaitUntil([&] {
        const auto lines = JobLines();
        return std::ranges::count_if(lines, [](const auto& line) { return line.starts_with("Build"); }) == 3;
    })) << "and it is tried again";
    const auto refused = transfer(ZDeviceModel::QMC);
    ASSERT_TRUE(refused);
    EXPECT_FALSE(refused->m_bSuccess);
    EXPECT_TRUE(WaitForJobLike("is for board apalis-imx8, the accessory has lazy"));
    std::vector<std::string> sent;
    probe->Listen(ZEndpointType::DeviceRequest, "fileIO", [&](const std::shared_ptr<ZMessage>& message) {
        if (const auto open = cast_shared<ZFileOpenMsg>(message)) {
            sent.push_back(fs::path(open->m_FilePath).filename().string());
        }
        return Z_MAKE(ZGenericResponseMsg);
    });
    EXPECT_TRUE(transfer(ZDeviceModel::QMA)->m_bSuccess);
    EXPECT_TRUE(transfer(ZDeviceModel::QMB)->m_bSuccess);
    EXPECT_THAT(sent, ElementsAre("arbor_qm.pkg", "arbor_kite.pkg"));
}

}  // namespace
