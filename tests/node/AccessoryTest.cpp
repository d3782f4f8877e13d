
#include <cstdlib>

#include "NodeFixture.h"

namespace fs = std::filesystem;
using testing::ElementsAre;

namespace {

class Accessory : public NodeFixture {
protected:
    /// A version that is installed and archived, of which no package was built yet.
    void StartWithoutBuilds(const std::string& config = "") {
        InstallSystem("3.044");
        Archive("3.044");
        Start(config);
        Tables().Builds().clear();
    }
};

TEST_F(Accessory, IsToldWhetherItFitsAndAPackageIsBuiltForIt) {
    folder.Write("mount/Archive/3.044/installer/installer.py",
                 "#!/bin/sh\ncd \"${0%/*}/..\"; echo for $3 > $5; echo built for $3 as $5\n", 0755);
    StartWithoutBuilds();
    const auto older = CheckFit("3.010", "");
    ASSERT_TRUE(older);
    EXPECT_TRUE(older->m_bCompatible && older->m_bRequiresUpdate);
    EXPECT_EQ(older->m_TargetVersion, "3.044");
    const std::string directory = (folder / "mount/Archive/3.044").string();
    ASSERT_TRUE(log.WaitFor(2, "SUCCESS: built for verdin-imx8mm as arbor_qm.pkg"));
    EXPECT_TRUE(log.Has(2, "No board set in compatability request, set to verdin-imx8mm"));
    EXPECT_TRUE(log.Has(2, "Build command: " + directory +
                               "/installer/installer.py --build --device verdin-imx8mm --output arbor_qm.pkg"));
    ASSERT_TRUE(WaitUntil([&] { return !Tables().BuildInProgress(); }));
    ZSoftwareVersion version("3.044");
    EXPECT_EQ(node->GetBuild(version), directory + "/arbor_qm.pkg");

    const auto same = CheckFit("3.044");
    EXPECT_TRUE(same->m_bCompatible && !same->m_bRequiresUpdate);
    EXPECT_TRUE(log.Has(2, "Skipping build because we already have it"));
    const auto newer = CheckFit("3.050");
    EXPECT_FALSE(newer->m_bCompatible);
    EXPECT_EQ(newer->m_TargetVersion, "3.050");
    EXPECT_TRUE(log.Has(3,
                        "Cart version <3.044> is behind Palm version <3.050> - Cart must be updated before connecting "
                        "to this Palm device!"));
}

TEST_F(Accessory, IsNotBuiltForWhenTheBoardCouldRunAsACommand) {
    StartWithoutBuilds();
    EXPECT_TRUE(CheckFit("3.010", "a;touch owned;")->m_bCompatible);
    ASSERT_TRUE(WaitUntil([&] { return log.All().find("Build refused") != std::string::npos; }));
    ASSERT_TRUE(WaitUntil([&] { return !Tables().BuildInProgress(); }));
    EXPECT_FALSE(fs::exists("owned"));
}

TEST_F(Accessory, FillsNoTableAndHasNoBuildWithNamesThatNoBoardHas) {
    StartWithoutBuilds();
    const std::string name(65, 'x');
    EXPECT_TRUE(CheckFit("3.010", name.c_str())->m_bCompatible);
    EXPECT_TRUE(log.Has(3, "No package is built for a board whose name has 65 characters"));
    for (std::int32_t model = 1000; model < 1020; ++model) {
        EXPECT_TRUE(CheckFit("3.010", "board", static_cast<ZDeviceModel>(model))->m_bCompatible);
    }
    EXPECT_TRUE(CheckFit("3.010", "board", ZDeviceModel::QMA)->m_bCompatible);
    EXPECT_EQ(Tables().AccessoryBoards(), (std::map<ZDeviceModel, ZString>{{ZDeviceModel::QMA, "board"}}));
    ASSERT_TRUE(WaitUntil([&] { return !Tables().BuildInProgress(); }));
}

TEST_F(Accessory, GetsNoPackageOverSshThatSomebodyMayExchange) {
    InstallSystem("3.044");
    const std::string seen = (folder / "commands").string();
    Program("avahi-resolve", "echo \"$3\t127.0.0.9\"");
    for (const char* const program : {"ssh", "rsync"}) {
        Program(program, "echo \"$*\" >> " + seen);
    }
    Start(R"("TrustedSigners":")" + (folder / "signers").string() + R"(","UnconfinedChecks":true)");
    // One that was good when its stick was looked at.
    Tables().AddPackage("3.044", Package("a.pkg", "3.044"));
    const auto answer = InstallOn("P1");
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->m_bSuccess);
    EXPECT_TRUE(WaitForJobLike("may be exchanged before the accessory runs it"));
    EXPECT_FALSE(fs::exists(seen));
}

TEST_F(Accessory, IsNotBuiltForByAProgramOfAStickThatPassesForTheArchive) {
    const fs::path ran = folder / "ran";
    folder.Write("mount/Archive/3.044/installer/installer.py", "#!/bin/sh\ntouch " + ran.string() + "\n", 0755);
    probe->Listen(ZEndpointType::GraphService, "getdevices", [&](const std::shared_ptr<ZMessage>&) {
        const auto drives = Z_MAKE(StorageDevicesMsg);
        drives->m_Devices = {ToZString((folder / "mount").string())};
        return drives;
    });
    StartWithoutBuilds(R"("TrustedSigners":")" + (folder / "signers").string() + R"(","UnconfinedChecks":true)");
    EXPECT_TRUE(CheckFit("3.010")->m_bCompatible);
    EXPECT_TRUE(WaitForJobLike("Build 3.044 Failed: " + (folder / "mount/Archive").string() + " is on a drive"));
    EXPECT_FALSE(fs::exists(ran));
}

TEST_F(Accessory, GetsAPackageAsFileMessages) {
    const fs::path package = Archive("3.044");
    folder.Write("mount/Archive/3.044/arbor_qm.pkg", std::string(776701, 'x'), 0755);
    std::vector<std::string> steps;
    probe->Listen(ZEndpointType::DeviceRequest, "fileIO", [&](const std::shared_ptr<ZMessage>& message) {
        const auto write = cast_shared<ZFileWriteMsg>(message);
        steps.push_back(message->ClassName() + (write ? ":" + std::to_string(write->m_Data.size()) : ""));
        const auto answer = Z_MAKE(ZGenericResponseMsg);
        answer->m_bSuccess = write == nullptr;
        answer->m_ErrorText = write ? "disk full" : "";
        return answer;
    });
    probe->Listen(ZEndpointType::Progress, "");
    Start();
    const auto answer = Transfer("3.044", "P1");
    ASSERT_TRUE(answer);
    EXPECT_TRUE(answer->m_bSuccess);
    EXPECT_EQ(answer->m_SerialNumber, "P1");
    const std::string destination = (folder / "updates/arbor_qm.pkg").string();
    ASSERT_TRUE(log.WaitFor(2, "Install File Close " + destination + " Complete SUCCESS"));
    EXPECT_THAT(steps, ElementsAre("ZFileOpenMsg", "ZFileWriteMsg:1035600", "ZFileWriteMsg:4", "ZFileCloseMsg"));
    EXPECT_TRUE(log.Has(4, "Error on File write: disk full")) << "a refused write does not end the transfer";
    EXPECT_TRUE(
        log.Has(2, "Sending Install File Open for <KiteQM-P1> <" + package.string() + "> -> <" + destination + ">"));
    EXPECT_TRUE(log.Has(2, "Install File Transfer (1 encoded 4 bytes) 99% (776700 of 776701) to " + destination));
    EXPECT_TRUE(WaitUntil([&] {
        return std::ranges::any_of(probe->Received(), [](const std::shared_ptr<ZMessage>& message) {
            const auto told = cast_shared<InstallProgressMsg>(message);
            return told && told->m_Header == "Transfer install package" && told->m_Percent == 99;
        });
    }));

    const auto missing = Transfer("9.9", "P1");
    EXPECT_EQ(missing->m_ErrorText, "Version does not exist");
    EXPECT_EQ(missing->m_ErrorCode, ZFrameworkErrorCodes::ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED);
    EXPECT_EQ(steps.size(), 4u) << "no file message is sent for a version that there is not";
}

TEST_F(Accessory, HasItsUploadsStampedAndHandedToTheFileService) {
    std::shared_ptr<ZFileMsg> seen;
    probe->Listen(ZEndpointType::DeviceRequest, "fileIO", [&](const std::shared_ptr<ZMessage>& message) {
        seen = std::static_pointer_cast<ZFileMsg>(message);
        const auto answer = Z_MAKE(ZGenericResponseMsg);
        answer->m_ErrorText = "from the service";
        return answer;
    });
    Start();
    const auto open = Z_MAKE(ZFileOpenMsg);
    open->m_FilePath = "a/update.pkg";
    open->m_SerialNumber = "theirs";
    // Asked from outside the probe's own thread, so the probe can answer as the file service.
    const auto answer = cast_shared<ZGenericResponseMsg>(probe->Ask(ZEndpointType::DeviceRequest, "upload", open));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->m_ErrorText, "from the service");
    EXPECT_EQ(seen->m_FilePath, ToZString((folder / "updates/a/update.pkg").string()));
    EXPECT_EQ(seen->m_SerialNumber, "SN42");
    EXPECT_TRUE(log.Has(2, "Publishing File open response"));
}

TEST_F(Accessory, IsInstalledRemotelyThroughTheFixedCommands) {
    InstallSystem("3.044");
    const std::string package = Archive("3.044").string();
    core->m_Comms.m_AccessoryHostName = "palm.local";
    probe->Listen(ZEndpointType::Progress, "");
    const std::string seen = (folder / "commands").string();
    Program("avahi-resolve",
            "case $3 in palm.local) echo \"$3\t127.0.0.9\";; *) printf 'x\\t1.2.3.4\\ny\\t1.2.3.5\\n';; esac");
    Program("hostname", "echo cart");
    Program("ssh",
            "printf 'ssh %s\\n' \"$*\" >> " + seen + "; case \"$*\" in *mkdir*) exit 1;; *--socket=2*) exit 1;; esac");
    Program("rsync", "printf 'rsync %s\\n' \"$*\" >> " + seen + "; printf '\\r 1 45%% 1MB/s\\r 2 100%% 1MB/s\\n'");
    Start(R"("ProgressPort":5001)");
    const auto refused = InstallOn("P1;touch owned;");
    ASSERT_TRUE(refused);
    EXPECT_FALSE(refused->m_bSuccess);
    EXPECT_TRUE(log.Has(4, "Host name <KiteQM-P1;touch owned;.local> can't stand in a command line"));
    EXPECT_FALSE(fs::exists("owned") || fs::exists(seen)) << "nor is a device of another name installed on";
    const auto answer = InstallOn("P1");
    ASSERT_TRUE(answer && answer->m_bSuccess);
    EXPECT_EQ(answer->m_Version + " " + answer->m_VersionType, "3.044 System");
    ASSERT_TRUE(log.WaitFor(4, "Error executing remote install script"));
    const std::string updates = (folder / "updates").string();
    EXPECT_EQ(ReadText(seen),
              "ssh -y -T root@127.0.0.9 /usr/sbin/i2cset -y -f 1 48 4 0x62;/usr/sbin/i2cset -y -f 1 48 2 0x81; \n"
              "ssh -y -T root@127.0.0.9 [ -f " +
                  updates + " ] && rm -fr " + updates + ";[ -d " + updates + " ] || mkdir -p " + updates +
                  "\nrsync -azP -e ssh -y " + package + " root@127.0.0.9:" + updates +
                  "/arbor_qm.pkg\nssh -y -T root@127.0.0.9 " + updates +
                  "/arbor_qm.pkg --socket=2 --port=5001 --addr=cart.local --dir=/media/mmcblk1p3/Packages >> "
                  "/usr/share/Logs/arbor_qm.log 2>&1 &\n");
    EXPECT_TRUE(log.Has(2, "Make directory result FAILURE: ")) << "a failing folder command does not stop the copy";
    EXPECT_TRUE(log.Has(4, "What host KiteQM-P1.local resolves to is not one IPv4 address: <1.2.3.4\\n1.2.3.5>"));
    ASSERT_TRUE(probe->WaitForMessages(2));
    EXPECT_EQ(cast_shared<InstallProgressMsg>(probe->Received()[0])->m_Percent, 45);
    EXPECT_TRUE(WaitUntil([&] { return !Tables().UpdateInProgress() && node->OnShutdownRequest(false); }));
}

TEST_F(Accessory, CanBeSwitchedToItsRecoverySystemWhichEndsTheGraph) {
    probe->Listen(ZEndpointType::DeviceRequest, "shutdown");
    const std::string switched = (folder / "switched").string();
    Start(R"("RunRecoveryCmd":"test -e )" + switched + R"(","SwitchPartitionCmd":"touch )" + switched + "\"");
    std::shared_ptr<ZMessage> unread;
    EXPECT_TRUE(node->OnSwitchDevice(unread));
    EXPECT_TRUE(log.Has(4, "Command failure result: "));
    EXPECT_TRUE(probe->Received().empty()) << "a recovery command that fails never ends the graph";
    EXPECT_TRUE(node->OnSwitchPartition(unread));
    EXPECT_TRUE(node->OnSwitchDevice(unread));
    ASSERT_TRUE(probe->WaitForMessages(1));
    const auto shutdown = cast_shared<ZShutdownMsg>(probe->Received()[0]);
    EXPECT_TRUE(shutdown && !shutdown->m_bRestart && shutdown->m_bUnconditional && shutdown->m_DelaySeconds == 0);
}

}  // namespace
