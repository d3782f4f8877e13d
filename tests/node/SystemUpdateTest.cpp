#include <sys/socket.h>

#include "NodeFixture.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZUnixAddress.h"

namespace fs = std::filesystem;
using testing::ElementsAre;

namespace {

class SystemUpdate : public NodeFixture {
protected:
    SystemUpdate() { probe->Listen(ZEndpointType::Progress, ""); }

    /// Starts an install whose program only lives, and waits for its relay.
    void StartRelay() {
        Package("a.pkg", "3.045", 0, kLives);
        Start();
        ASSERT_TRUE(Install(UpdateTo("3.045"))->m_bSuccess);
        ASSERT_TRUE(log.WaitFor(2, "Install progress socket bound and listening"));
    }
    std::vector<std::int32_t> Percents() {
        std::vector<std::int32_t> percents;
        for (const auto& message : probe->Received()) {
            percents.push_back(cast_shared<InstallProgressMsg>(message)->m_Percent);
        }
        return percents;
    }
};

TEST_F(SystemUpdate, StartsThePackageWithTheInstallersOptions) {
    const std::tuple<const char*, bool, const char*, std::string> kCases[]{
        {"", true, "", "--sock=1\n--addr=progress\n"},
        {"", false, R"("DryRun":true)", "--sock=1\n--addr=progress\n--no-reboot\n--dry-run\n"},
        {"dev", true, R"("ProgressPort":5000)", "--sock=2\n--port=5000\n--addr=dev.local\n"},
    };
    const fs::path package = Package("a.pkg", "3.045");
    for (const auto& [host, reboot, config, arguments] : kCases) {
        Restart();  // a graph of its own for every record
        Start(config);
        fs::remove(package.string() + ".args");
        const auto request = UpdateTo("3.045");
        request->m_ProgressHost = host;
        request->m_bReboot = reboot;
        const auto answer = Install(request);
        ASSERT_TRUE(answer);
        EXPECT_TRUE(answer->m_bSuccess);
        EXPECT_TRUE(Tables().UpdateInProgress());
        ASSERT_TRUE(WaitUntil([&] { return fs::exists(package.string() + ".args"); }));
        EXPECT_EQ(ReadText(package.string() + ".args"), "--skip-verify\n--dir=/media/mmcblk1p3/Packages\n" + arguments);
    }
    EXPECT_TRUE(log.Has(2, "Software update command " + package.string() +
                               "--skip-verify--dir=/media/mmcblk1p3/Packages--sock=1--addr=progress"));
    EXPECT_TRUE(log.Has(2, "Setting NO REBOOT flag for the installer"));
}

TEST_F(SystemUpdate, AnswersAMissingVersionAsAPlainFailureAndListsTheArchive) {
    const fs::path archived = Archive("3.043");
    Start();
    const auto request = UpdateTo("3.043");  // archived, but on no drive
    request->m_SerialNumber = "S1";
    request->m_DeviceModel = static_cast<ZDeviceModel>(9);
    const auto answer = Install(request);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->m_bSuccess);
    EXPECT_EQ(answer->m_ErrorCode, ZFrameworkErrorCodes::ERRCODE_NONE);
    EXPECT_TRUE(log.Has(2, "Find package for version <3.043> <-S1>"));
    EXPECT_TRUE(log.Has(4, "No update file for package 3.043 checked 1"));
    EXPECT_TRUE(log.Has(4, "Version 3.043: " + archived.string()));
    EXPECT_FALSE(Tables().UpdateInProgress());
}

TEST_F(SystemUpdate, RelaysEveryDocumentUntilOneSaysDone) {
    const auto left = ZUnixAddress::Of(socket.string());  // by an earlier run
    const ZFileDescriptor earlier(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::bind(earlier.Get(), left->Get(), ZUnixAddress::Size()), 0);
    StartRelay();
    {
        Installer early(socket);
        early.Say(R"({"header":"Copy","message":"half","percent":40,"spinner":true})");
        EXPECT_TRUE(probe->WaitForMessages(1));
        early.Say("{\"percent\":");
        ASSERT_TRUE(log.WaitFor(4, "Could not set JSON comm stream data dropping message"));
    }
    ASSERT_TRUE(WaitUntil([&] { return log.All().find(" - EOF") != std::string::npos; }));
    EXPECT_TRUE(Tables().Relaying()) << "a client that leaves must not end the relay";
    Installer installer(socket);
    installer.Say(R"({"percent":90,"message":"glued"}{"percent":100,"done":true})");
    ASSERT_TRUE(log.WaitFor(2, "Progress local socket closed and file removed"));
    EXPECT_TRUE(probe->WaitForMessages(2));
    EXPECT_THAT(Percents(), ElementsAre(40, 100));
    EXPECT_TRUE(log.Has(2, "Install Header: Copy"));
    EXPECT_TRUE(log.Has(2, "Install Message: half"));
    EXPECT_TRUE(log.Has(2, "Install percent: 40 spinner: 1 done: 0 error 0"));
    EXPECT_TRUE(log.Has(2, "Install complete exit progress loop"));
    EXPECT_FALSE(fs::exists(socket));
}

TEST_F(SystemUpdate, LetsAnErrorWinOverDoneAndRelaysItThoughAValueIsOfAWrongType) {
    StartRelay();
    Installer installer(socket);
    installer.Say(R"({"percent":"many","message":"broken","done":true,"error":true})");
    ASSERT_TRUE(log.WaitFor(2, "Install ERROR exit progress loop"));
    ASSERT_TRUE(probe->WaitForMessages(1));
    EXPECT_TRUE(cast_shared<InstallProgressMsg>(probe->Received().front())->m_bError);
}

TEST_F(SystemUpdate, UnderstandsAnEndAsWritersInCSendIt) {
    for (const std::string& text :
         {std::string(R"({"done":true})") + '\0', std::string(R"({"done":1})"),
          std::string("{\"percent\":1}\0{\"done\":true}\0", 29), std::string("{\"error\":1}\0\0", 13)}) {
        StartRelay();
        Installer installer(socket);
        installer.Say(text);
        EXPECT_TRUE(log.WaitFor(2, "Progress local socket closed and file removed")) << text;
        EXPECT_TRUE(probe->WaitForMessages(1));
        const auto last = cast_shared<InstallProgressMsg>(probe->Received().back());
        EXPECT_TRUE(text.find("error") == std::string::npos ? last->m_bDone : last->m_bError) << text;
        Restart();
        probe->Listen(ZEndpointType::Progress, "");
        log.Clear();
    }
}

TEST_F(SystemUpdate, DeletesNothingThatItsSocketsNameLeadsTo) {
    const fs::path victim = folder.Write("victim", "kept");
    for (const std::string& name :
         std::vector<std::string>{"../../victim", victim.string(), "progress", "note", std::string(120, 'x')}) {
        Start("\"ProgressPath\":\"" + name + '"');
        fs::create_directory(folder / "mount/Archive/progress");
        folder.Write("mount/Archive/note", "kept");
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_FALSE(node->BindSocket(descriptor, true)) << name;
        ::close(descriptor);
        EXPECT_TRUE(fs::exists(victim) && fs::exists(folder / "mount/Archive/progress") &&
                    fs::exists(folder / "mount/Archive/note"))
            << name;
        Restart();
    }
    EXPECT_TRUE(log.Has(4, "Unable to bind() socket: File name too long"));
}

TEST_F(SystemUpdate, LetsAFifthClientWaitForAPlace) {
    StartRelay();
    std::vector<std::unique_ptr<Installer>> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(std::make_unique<Installer>(socket));
        clients.back()->Say("{\"percent\":" + std::to_string(i) + "}");
    }
    ASSERT_TRUE(probe->WaitForMessages(4));
    EXPECT_EQ(Percents().size(), 4u);
    clients.front().reset();
    ASSERT_TRUE(probe->WaitForMessages(5)) << "the fifth is taken when a place is free";
    EXPECT_EQ(Percents().back(), 4);
    clients.back()->Say(R"({"done":true})");
    EXPECT_TRUE(log.WaitFor(2, "Install complete exit progress loop"));
}

TEST_F(SystemUpdate, AnswersWhetherAnUpdateRunsAndWhichVersionIsInstalled) {
    InstallSystem("3.044");
    Start();
    const auto question = Z_MAKE(ZSystemUpdateInProgressRequestMsg);
    question->m_Message = "hello";
    question->m_RequestTag = "tag";
    const auto answer = cast_shared<ZSystemUpdateInProgressMsg>(
        probe->Ask(ZEndpointType::GraphService, "getUpdateInProgress", question));
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->m_bUpdateInProgress);
    EXPECT_EQ(answer->m_Message, "hello");
    EXPECT_EQ(answer->m_RequestTag, "tag");
    EXPECT_TRUE(log.Has(2, "Update In Progress = <FALSE>; Message = <ZSystemUpdateInProgressRequestMsg>..."));

    const auto info = cast_shared<ZVersionInfoMsg>(AskClient("getinstalledversioninfo", Z_MAKE(ZGenericRequestMsg)));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->m_Version, "3.044");
    EXPECT_TRUE(info->m_bInstalled);

    const auto compare = Z_MAKE(ZCompareVersionsMsg);
    compare->m_Version1 = "2.0";
    compare->m_Version2 = "2.5";
    EXPECT_TRUE(cast_shared<ZCompareVersionsResultMsg>(AskClient("compareversions", compare))->m_bResult);
    EXPECT_TRUE(log.Has(2, "Compare Versions 2.0 >= 2.5"));
}

}  // namespace
