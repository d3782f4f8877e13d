#include <dlfcn.h>

#include "NodeFixture.h"
#include "ZMessages/ZJSONCommStream.h"
#include "version.h"

namespace {

TEST(Version, IsToldUnderPlainNames) {
    EXPECT_STREQ(GetVersionTag(), "3.044");
    EXPECT_NE(::dlsym(RTLD_DEFAULT, "GetVersionHash"), nullptr);
}

TEST(Configuration, WritesItsNineKeysAndNoOther) {
    ZJSONCommStream stream;
    ZNodeArborInstallCfg().Serialize(stream);
    EXPECT_EQ(stream.Text(),
              R"({"ArchiveDevice":"","ArchiveDir":"","SystemInfoFilePath":"","AllowDowngrades":false,"ProgressPort":0,)"
              R"("ProgressPath":"","DryRun":false,"SwitchPartitionCmd":"","RunRecoveryCmd":""})");
}

TEST(Configuration, DerivesTheArchiveRootFromTheDevicesMountPoint) {
    ZPlatformSettings platform;
    platform.mounts = {{"/dev/a", "/mnt/a"}};
    ZPlatform::Configure(platform);
    const std::pair<const char*, const char*> kCases[]{
        {R"({"ArchiveDir":"Archive"})", ""},
        {R"({"ArchiveDevice":"/dev/a","ArchiveDir":"Archive"})", "/mnt/a/Archive"},
        {R"({"ArchiveDevice":"/dev/a"})", "/mnt/a"},
        {R"({"ArchiveDevice":"/dev/none","ArchiveDir":"Archive"})", "Archive"}};
    for (const auto& [json, root] : kCases) {
        ZJSONCommStream stream;
        ZNodeArborInstallCfg record;
        EXPECT_TRUE(record.Load(std::string_view(json), stream));
        EXPECT_EQ(record.m_archiveRoot.string(), root) << json;
    }
    ZPlatform::Configure({});
    ZNodeArborInstallCfg record;
    record.m_SystemInfoFilePath = "$ROOT/Manifest.json";
    EXPECT_EQ(record.GetSystemInfoFilePath(), "") << "without an environment nothing is resolved";
    const auto environment = std::make_shared<ZEnvironment>();
    environment->Set("ROOT", "/etc");
    record.SetEnvironment(environment);
    EXPECT_EQ(record.GetSystemInfoFilePath(), "/etc/Manifest.json");
}

TEST(MessageMap, EndsAtTheFirstSubscriptionThatFails) {
    // A bus that has no room for "compareversions".
    class FullBus : public ZNodeComm {
    public:
        bool Subscribe(const void*, const ZNodeUID&, const std::shared_ptr<ZMailbox>&, const ZCommEndpoint& endpoint,
                       Handler) override {
            keywords += ToStdString(endpoint.Text()) + ' ';
            return endpoint.Name() != refused;
        }
        void Unsubscribe(const void*) override {}
        ZPublishOutcome Publish(const ZCommEndpoint&, const std::shared_ptr<ZMessage>&, std::shared_ptr<ZMessage>*,
                                const ZPublishOptions&) override {
            return ZPublishOutcome::NoSubscriber;
        }
        bool Respond(const ZResponseSource&, const std::shared_ptr<ZMessage>&) override { return false; }
        bool IsAwaited(const ZResponseSource&) const override { return true; }
        void Close() override {}
        void SetRequestTimeout(std::chrono::milliseconds) override {}
        std::string keywords;
        ZString refused;
    };
    const auto tryWith = [](const char* refused, bool expected) {
        const auto bus = std::make_shared<FullBus>();
        bus->refused = refused;
        ZNodeArborInstall node("n");
        node.Attach(bus, std::make_shared<ZMailbox>(4));
        EXPECT_EQ(node.InitMessageMap(), expected);
        return bus->keywords;
    };
    const std::string all =
        "1:updatesystem 2:remoteinstall 3:checkCompatibility 1:compareversions 3:newFile 3:storagedeviceupdate "
        "1:findupdates 1:getinstalledversioninfo 2:upload 2:transfer 3:getUpdateInProgress 3:inventory 1:forget "
        "3:trust 1:applytrust 3:trial 3:cancel ";
    EXPECT_EQ(tryWith("", true), all);
    EXPECT_EQ(tryWith("compareversions", false), all.substr(0, all.find("3:newFile")));
}

class Lifecycle : public NodeFixture {};

TEST_F(Lifecycle, ScansDrivesThenAsksForTheDeviceProperties) {
    probe->Listen(ZEndpointType::GraphService, "deviceProps", [](const auto&) { return Z_MAKE(ZDevicePropertiesMsg); });
    Start();
    EXPECT_TRUE(Tables().DeviceProperties());
    EXPECT_TRUE(log.WaitFor(2, "Scan drives Action complete"));
}

TEST_F(Lifecycle, GoesOnWithoutDevicePropertiesWhenTheAnswerIsOfAnotherClass) {
    probe->Listen(ZEndpointType::GraphService, "deviceProps", [](const auto&) { return Z_MAKE(ZGenericResponseMsg); });
    Start();
    EXPECT_FALSE(Tables().DeviceProperties());
    EXPECT_TRUE(log.Has(4, "Could not get Device Properties"));
}

TEST_F(Lifecycle, RefusesToStopWhileAFileIsCheckedAndRemembersTheRequest) {
    Start();
    Package("slow.pkg", "3.1'; while [ ! -e " + (folder / "go").string() + " ]; do sleep 0.02; done; echo '");
    TellFile(Drive() / "slow.pkg");
    ASSERT_TRUE(log.WaitFor(2, "Found package file " + (Drive() / "slow.pkg").string()));
    EXPECT_FALSE(node->OnShutdownRequest(false));
    EXPECT_FALSE(AskClient("findupdates", Z_MAKE(ZGenericRequestMsg)) == nullptr) << "a check must not block requests";
    folder.Write("go", "");
    EXPECT_TRUE(WaitUntil([&] { return node->OnShutdownRequest(false); }));
    node->OnGetInstalledVersionInfo(Z_MAKE(ZGenericRequestMsg));
    EXPECT_TRUE(log.Has(2, "Entered OnGetInstalledVersionInfo()..."));
    EXPECT_FALSE(log.Has(2, "System Version = <unknown>")) << "no answer once a shutdown was requested";
}

}  // namespace
