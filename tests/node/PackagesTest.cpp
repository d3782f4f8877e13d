#include "NodeFixture.h"

namespace fs = std::filesystem;
using namespace testing;

namespace {

class Packages : public NodeFixture {
protected:
    Packages() { probe->Listen(ZEndpointType::GraphService, "updateavailable"); }
};

TEST_F(Packages, AreCheckedAndAnnouncedRejectionsFirstThenNewestFirst) {
    InstallSystem("3.044");
    Start();
    Package("new.pkg", "3.046");
    Package("same.pkg", "3.044");
    Package("it's.pkg", "3.045");
    const std::string old = Package("old.pkg", "3.001").string();
    const std::string bad = Package("bad.pkg", "3.047", 1).string();
    const std::string wordy = Package("wordy.pkg", "next").string();
    const std::string broken = folder.Write("drive/broken.pkg", "#!/bin/sh\nexit 3\n", 0755).string();
    Package("update.PKG", "9.9");
    Package("update.pkg.bak", "9.9");
    const std::string plain = folder.Write("drive/plain.pkg", "#!/bin/sh\necho 9.9\n").string();
    folder.Write("drive/sub/deep.pkg", "#!/bin/sh\necho 9.9\n", 0755);
    fs::create_symlink("/nowhere", Drive() / "dangling.pkg");

    auto records = Records(AnnounceDrive());
    ASSERT_EQ(records.size(), 7u);
    std::sort(records.begin(), records.begin() + 4);
    EXPECT_THAT(records, ElementsAre("3.001 " + old + " rejected 4", "3.047 " + bad + " rejected 7",
                                     "unknown " + broken + " rejected 7", "unknown " + wordy + " rejected 7",
                                     "3.046 System", "3.045 System", "3.044 System"));
    EXPECT_TRUE(log.Has(4, "Verification failed on " + bad + ": board:verdin-imx8mm"));
    EXPECT_TRUE(log.Has(4, "Execute command '" + broken + "' --version failed: "));
    EXPECT_TRUE(log.Has(4, "File <" + wordy + "> Invalid package <next>"));
    EXPECT_TRUE(log.Has(2, "Package version <3.001> less than or equal to <3.044> or downgrades Not Allowed"));
    EXPECT_TRUE(log.Has(2, "File " + plain + " Not Executable and is regular file"));
    EXPECT_TRUE(log.Has(2, "File " + (Drive() / "sub").string() + " is executable and Is NOT a regular file"));
    EXPECT_TRUE(log.Has(4, "Error getting file permissions 2"));
    EXPECT_THAT(Offered(), ElementsAre("3.046 System", "3.045 System", "3.044 System"));

    EXPECT_EQ(AnnounceDrive()->m_Messages.size(), 7u) << "a second scan must not add entries";
    EXPECT_TRUE(log.Has(2, "Erasing duplicate package file " + (Drive() / "new.pkg").string() + " version 3.046"));
}

TEST_F(Packages, OfADriveThatLeftAreForgottenAndOnlyThose) {
    Start(R"("AllowDowngrades":true)");
    folder.Write("drive0/keep", "");
    Package("a.pkg", "3.045");
    Package("../drive0/b.pkg", "3.046");
    for (const char* drive : {"drive", "drive0"}) {
        TellDrives({folder / drive}, {"", "/nonexistent"});
    }
    ASSERT_TRUE(WaitUntil([&] { return Offered().size() == 2; }));
    EXPECT_TRUE(node->RemoveStorageDevices({ToZString(Drive().string() + "/.//")}));
    EXPECT_THAT(Offered(), ElementsAre("3.046 System"));
    EXPECT_TRUE(log.Has(2, "Removing package " + (Drive() / "a.pkg").string()));
    node->RemoveStorageDevices({ToZString((folder / "drive0").string())});
    EXPECT_THAT(Offered(), IsEmpty());
    EXPECT_TRUE(log.Has(2, "No software packages found"));
}

TEST_F(Packages, ThatShowUpAsSingleFilesAreCheckedWhenExecutableAndNamedSo) {
    Start();
    EXPECT_THAT(AnnounceFile(Package("a.pkg", "3.045")), ElementsAre("3.045 System"));
    AnnounceFile(folder.Write("drive/plain.pkg", "x"));
    EXPECT_TRUE(log.Has(2, "File plain.pkg is executable"));
    AnnounceFile(folder.Write("drive/tool.bin", "x", 0755));
    EXPECT_TRUE(log.Has(2, "File tool.bin Not Executable"));
    EXPECT_THAT(AnnounceFile(folder / "drive/gone.pkg"), ElementsAre("3.045 System")) << "the next input still works";
    EXPECT_TRUE(log.Has(4, "Error getting file permissions 2"));

    probe->Tell("newFile", Z_MAKE(ZGenericRequestMsg));
    EXPECT_TRUE(log.WaitFor(4, "Unknown message ZGenericRequestMsg"));
}

TEST_F(Packages, PresentAtStartAreFoundOnTheDrivesThatTheStorageServiceNamesAndAmongUpdates) {
    Package("a.pkg", "3.045");
    probe->Listen(ZEndpointType::GraphService, "getdevices", [this](const auto&) {
        Package("../updates/b.pkg", "3.046");  // sent while the graph starts, which has emptied the folder
        const auto devices = Z_MAKE(StorageDevicesMsg);
        devices->m_Devices = {ToZString(Drive().string()), ToZString((folder / "pulled").string())};
        return devices;
    });
    Start();
    ASSERT_TRUE(log.WaitFor(2, "Scan drives Action complete"));
    EXPECT_TRUE(log.Has(2, "Scanning 2 drives for updates"));
    EXPECT_TRUE(log.Has(4, "Error reading drive " + (folder / "pulled").string() + ": No such file or directory"));
    EXPECT_TRUE(log.Has(2, "Sent software update available"));
    EXPECT_THAT(Offered(), ElementsAre("3.046 System", "3.045 System"));
}

TEST_F(Packages, AreNotRunForABoardThatAShellWouldReadAsMore) {
    identity.board = "x;touch " + (folder / "owned").string();
    Start();
    const std::string file = Package("a.pkg", "3.045").string();
    EXPECT_THAT(AnnounceFile(file), ElementsAre("3.045 " + file + " rejected 7"));
    EXPECT_FALSE(fs::exists(folder / "owned"));
}

TEST_F(Packages, AreLookedUpExactlyArchiveFirst) {
    const fs::path archived = Archive("3.044.0");
    Start();
    const fs::path onDrive = Package("a.pkg", "3.045");
    Package("b.pkg", "3.044");
    AnnounceDrive();
    EXPECT_EQ(node->GetPackage("3.044"), archived) << "equal versions, the archive wins";
    EXPECT_EQ(node->GetPackage("3.045.0"), onDrive);
    EXPECT_TRUE(log.Has(2, "Found Package version 3.045.0 file " + onDrive.string()));
    EXPECT_EQ(node->GetPackage("3.1"), "");
    EXPECT_TRUE(log.Has(3, "Could not find build for version 3.1"));
    EXPECT_TRUE(log.Has(3, "No packages for 3.1"));
    EXPECT_EQ(node->GetPackage("3..1"), "");
    EXPECT_TRUE(log.Has(4, "Could not create ZSoftwareVersion from 3..1"));

    fs::path path = "untouched";
    EXPECT_FALSE(node->FindPackage("3.1", path));
    EXPECT_EQ(path, "untouched");
    fs::remove(onDrive);
    EXPECT_FALSE(node->FindPackage("3.045", path));
    EXPECT_EQ(path, onDrive) << "the stale path is still told";
}

TEST(ShellEscape, QuotesForAPosixShell) {
    EXPECT_EQ(ZNodeArborInstall::ShellEscape(""), "''");
    EXPECT_EQ(ZNodeArborInstall::ShellEscape("it's"), "'it'\\''s'");
    EXPECT_EQ(ZNodeArborInstall::ShellEscape("a\n\\$b"), "'a\n\\$b'");
}

}  // namespace
