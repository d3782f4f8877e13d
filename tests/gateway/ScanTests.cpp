// People give orders; what nodes tell each other is not for them.

#include "GatewayFixture.h"
#include "NodeGateway/KeywordTable.h"

namespace fs = std::filesystem;

namespace {

using namespace testing;

/// The gateway of a device with an updates folder and two drives, one of them reached by a link.
class GatewayScan : public Gateway {
protected:
    void SetUp() override {
        Gateway::SetUp();
        updatesFolder = folder / "updates";
        for (const char* file :
             {"updates/a.pkg", "usb1/a.pkg", "usb1/deep/b.pkg", "usb11/c.pkg", "disk/d.pkg", "e.pkg"}) {
            folder.Write(file, "");
        }
        fs::create_directory_symlink(folder / "disk", folder / "usb2");
        fs::create_symlink(folder / "e.pkg", folder / "usb1/out.pkg");
        fs::create_directory_symlink(folder.Path(), folder / "usb1/up");
        fs::create_symlink(folder / "usb1/a.pkg", folder / "in.pkg");
    }
    void StartWithDrives() {
        ASSERT_TRUE(Start()) << error;
        graph->AddNode("ProbeNode", "drives", nullptr).value();
        cast_shared<ProbeNode>(graph->Node("drives"))->Listen(kService, "getdevices", [this](const auto&) {
            const auto drives = ZMakeShared<StorageDevicesMsg>();
            drives->m_Devices = {ToZString((folder / "usb1").string()), ToZString((folder / "usb2").string())};
            return drives;
        });
        probe->Listen(kService, "newFile");
        probe->Listen(kService, "storagedeviceupdate");
    }
    Reply Scan(const std::string& path) { return Post("/v1/scan", "{\"path\":\"" + path + "\"}"); }
    /// What the nodes were told last: a file, or a drive with a "+" before it.
    std::string Told(std::size_t count) const {
        EXPECT_TRUE(probe->WaitForMessages(count));
        const auto last = probe->Received().back();
        const auto drives = cast_shared<StorageDevicesMsg>(last);
        const auto file = cast_shared<FolderUpdateMsg>(last);
        return drives ? '+' + ToStdString(drives->m_AddedDevices.at(0))
                      : ToStdString(file->m_Folder) + '/' + ToStdString(file->m_FileName);
    }
};

TEST_F(GatewayScan, HasFilesAndDrivesLookedAtWhereOneWouldLookAnyway) {
    StartWithDrives();
    const std::pair<std::string, std::string> rows[]{
        {"updates/a.pkg", "updates/a.pkg"}, {"usb1/a.pkg", "usb1/a.pkg"}, {"usb1//./deep/b.pkg", "usb1/deep/b.pkg"},
        {"usb2/d.pkg", "usb2/d.pkg"},       {"disk/d.pkg", "usb2/d.pkg"}, {"in.pkg", "usb1/a.pkg"},
    };
    std::size_t count = 0;
    for (const auto& [path, told] : rows) {
        const Reply reply = Scan((folder / path).string());
        EXPECT_EQ(reply.status, 202) << path << reply.body;
        EXPECT_EQ(reply.Text("operationId").size(), 16U) << reply.body;
        EXPECT_EQ(Told(++count), (folder / told).string());
        EXPECT_EQ(probe->Received().back()->Origin()->operationId, reply.Text("operationId"));
    }
    for (const char* drive : {"usb1", "usb2", "usb1/"}) {
        EXPECT_EQ(Scan((folder / drive).string()).status, 202);
        EXPECT_EQ(Told(++count),
                  '+' + (folder / drive).lexically_normal().string().substr(0, (folder / "usb1").string().size()));
    }
}

TEST_F(GatewayScan, RefusesEveryOtherPathAndSaysWhy) {
    StartWithDrives();
    const std::pair<std::string, std::string> rows[]{
        {(folder / "e.pkg").string(), "is neither on a drive"},
        {(folder / "usb1/../e.pkg").string(), "is neither on a drive"},
        {(folder / "usb1/out.pkg").string(), "leads to another place"},
        {(folder / "usb1/up/e.pkg").string(), "leads to another place"},
        {(folder / "usb11/c.pkg").string(), "is neither on a drive"},
        {"/etc/passwd", "is neither on a drive"},
        {"/", "is neither on a drive"},
        {updatesFolder.string(), "is the updates folder"},
        {(folder / "usb1/none.pkg").string(), "is not there"},
        {"/etc/no such file", "is neither on a drive"},
        {"usb1/a.pkg", "absolute path"},
        {"", "absolute path"},
        {"/proc/self/cwd\\u0000/a", "absolute path"},
    };
    for (const auto& [path, reason] : rows) {
        const Reply reply = Scan(path);
        EXPECT_EQ(reply.status, 403) << path;
        EXPECT_THAT(reply.Text("detail"), HasSubstr(reason));
        EXPECT_EQ(reply.Text("field"), "path");
    }
    EXPECT_THAT(probe->Received(), IsEmpty());
}

TEST_F(GatewayScan, NeedsNoStorageNodeForTheUpdatesFolder) {
    ASSERT_TRUE(Start());
    EXPECT_EQ(Scan((updatesFolder / "a.pkg").string()).status, 503);
    probe->Listen(kService, "newFile");
    EXPECT_EQ(Scan((updatesFolder / "a.pkg").string()).status, 202);
    EXPECT_EQ(Scan((folder / "usb1/a.pkg").string()).status, 403);
}

TEST_F(GatewayScan, KeepsWhatNodesTellEachOtherFromPeople) {
    StartWithDrives();
    probe->Listen(kService, "getdevices");
    const std::string described = Get("/v1/openapi.json").body;
    std::size_t closed = 0;
    for (const gateway::Keyword& keyword : gateway::Keywords()) {
        const bool forPeople = keyword.role != gateway::Role::Nodes;
        EXPECT_EQ(described.find("\"/v1/" + std::string(keyword.name) + '"') != std::string::npos, forPeople);
        if (forPeople) {
            continue;
        }
        ++closed;
        const Reply reply = Post(std::string("/v1/") + keyword.name,
                                 R"({"folder":")" + folder.Path().string() + R"(","fileName":"e.pkg"})");
        EXPECT_EQ(reply.status, 403) << keyword.name;
        EXPECT_THAT(reply.Text("detail"), HasSubstr("between nodes"));
        EXPECT_THAT(reply.Text("detail"), HasSubstr("arborctl "));
    }
    EXPECT_EQ(closed, 4U);
    EXPECT_THAT(probe->Received(), IsEmpty());
    EXPECT_THAT(log.All(), HasSubstr("was refused \"newFile\""));
}

TEST_F(GatewayScan, OpensThemInDeveloperModeAndSaysSoAtTheStart) {
    ASSERT_TRUE(Start());
    EXPECT_THAT(log.All(), Not(HasSubstr("developerMode")));
    graph.reset();
    ASSERT_TRUE(Start(R"("developerMode":true)"));
    EXPECT_EQ(log.Count("\"developerMode\" is on", 3), 1) << log.All();
    EXPECT_THAT(Get("/v1/status").body, HasSubstr(R"("developerMode":true)"));
    EXPECT_THAT(Get("/v1/openapi.json").body, HasSubstr("/v1/newFile"));
    probe->Listen(kService, "newFile");
    EXPECT_EQ(Post("/v1/newFile", "{}").status, 202);
}

}  // namespace
