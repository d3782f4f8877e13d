#include <gmock/gmock.h>

#include "NodeFixture.h"

namespace fs = std::filesystem;

namespace {

class Inventory : public NodeFixture {};

TEST_F(Inventory, TellsTheInstalledSystemAndTheArchivedVersions) {
    InstallSystem("3.044");
    Archive("3.043");
    Archive("3.044");
    folder.Write("mount/Archive/3.050/arbor_qm.pkg", "no manifest here");
    folder.Write("mount/Archive/3.060/Manifest.json/a-directory", "");
    folder.Write("mount/Archive/rubbish/file", "");
    folder.Write("mount/Archive/notes.txt", "kept");
    Start();
    EXPECT_EQ(Tables().Builds().size(), 3u) << "3.060 has no package: one can still be built";
    EXPECT_EQ(Tables().Manifests().size(), 2u);
    EXPECT_FALSE(fs::exists(folder / "mount/Archive/rubbish"));
    EXPECT_TRUE(fs::exists(folder / "mount/Archive/notes.txt"));
    const std::string archive = (folder / "mount/Archive").string();
    std::vector<std::string> wanted{
        "2 EEPROM contains device model <KiteQM>.",
        "2 Set serial number from eeprom to <SN42>.",
        "2 Set Board from eeprom to <verdin-imx8mm>",
        "2 Create updates folder " + (folder / "updates").string(),
        "2 ------------ SYSTEM VERSION INFO ------------",
        "2 System Version = <3.044>.",
        "2 System Installer Version = <7>",
        "2  - Component <boot> Version = <2> Board = <b1>.",
        "2 ------------ SYSTEM VERSION INFO ------------",
        "2 Archive path = <" + archive + ">",
    };
    std::size_t matched = 0;
    for (const auto& line : log.Lines()) {
        if (matched < wanted.size() && line.level == wanted[matched][0] - '0' &&
            line.text.ends_with(wanted[matched].substr(2))) {
            ++matched;
        }
    }
    EXPECT_EQ(matched, wanted.size()) << "missing, or out of order: " << wanted[std::min(matched, wanted.size() - 1)];
    EXPECT_TRUE(log.Has(2, "Directory <" + archive + "/3.043> Version <3.043> File <" + archive +
                               "/3.043/arbor_qm.pkg> Manifest <" + archive + "/3.043/Manifest.json>"));
    EXPECT_TRUE(log.Has(2, "Manifest <no manifest>"));
    EXPECT_TRUE(log.Has(4, "Manifest file " + archive + "/3.060/Manifest.json was not loaded"));
    EXPECT_TRUE(log.Has(2, "Skipping " + archive + "/notes.txt as it is not a directory"));
    EXPECT_TRUE(log.Has(2, "<rubbish> Not a valid version"));
    EXPECT_TRUE(log.Has(2, "Deleting invalid directory <" + archive + "/rubbish>"));
}

TEST_F(Inventory, KeepsAModelTextThatIsNoKnownNameOutOfTheModel) {
    identity.model = "kiteqm";
    identity.board.clear();
    Start();
    EXPECT_FALSE(Tables().DeviceModel());
    EXPECT_TRUE(log.Has(2, "EEPROM contains device model <kiteqm>."));
    EXPECT_FALSE(log.Has(2, "Set Board from eeprom to <>"));
}

TEST_F(Inventory, EmptiesTheUpdatesFolderAndReplacesAFileInItsPlace) {
    folder.Write("updates/old.pkg", "x");
    folder.Write("updates/deep/down", "x");
    core->m_Files.m_UpdatesFolder += "/";
    Start();
    EXPECT_TRUE(fs::is_directory(folder / "updates"));
    EXPECT_TRUE(fs::is_empty(folder / "updates"));
    EXPECT_EQ(node->UpdatesPath(), folder / "updates");
    Restart();
    fs::remove(folder / "updates");
    folder.Write("updates", "a file");
    Start();
    EXPECT_TRUE(fs::is_directory(folder / "updates"));
    EXPECT_TRUE(
        log.Has(3, "Update folder " + (folder / "updates").string() + " was not a directory. Delete it and re-create"));
}

TEST_F(Inventory, DeletesNothingOutsideAProperArchive) {
    const std::string mount = (folder / "mount").string();
    const std::pair<const char*, std::string> cases[]{
        {R"("ArchiveDir":"/")", mount + " may not be emptied: it is not below " + mount},
        {R"("ArchiveDir":"")", mount + " may not be emptied: it is not below " + mount},
        {R"("ArchiveDir":"../outside")",
         "Archive folder " + mount + "/../outside is not on its device: there is no archive"},
        {R"("ArchiveDir":"link")", "Archive folder " + mount + "/link is not on its device: there is no archive"},
        {R"("ArchiveDevice":"/dev/none")", "Archive device /dev/none is not mounted: there is no archive"},
    };
    fs::create_directory_symlink(folder / "outside", folder / "mount/link");
    const auto before = fs::current_path();
    fs::current_path(folder.Path());  // a relative archive would be here
    for (const auto& [settings, line] : cases) {
        folder.Write("mount/rubbish/file", "kept");
        folder.Write("outside/rubbish/file", "kept");
        folder.Write("Archive/rubbish/file", "kept");
        Start(settings);
        EXPECT_TRUE(log.Has(4, line)) << log.All();
        for (const char* place : {"mount", "outside", "Archive"}) {
            EXPECT_TRUE(fs::exists(folder / place / "rubbish/file")) << settings << ' ' << place;
        }
        Restart();
    }
    fs::current_path(before);
    folder.Write("mount/Archive/rubbish/file", "");
    Start(R"("ArchiveDir":"/Archive")");
    EXPECT_FALSE(fs::exists(folder / "mount/Archive/rubbish")) << "a slash in front is no way off the device";
}

TEST_F(Inventory, EmptiesNoUpdatesFolderThatHoldsMoreThanUpdates) {
    Archive("3.043");
    folder.Write("graph.json", "{}");
    fs::create_directory_symlink(folder / "mount/Archive", folder / "alias");
    for (const char* updates : {"mount", "mount/Archive", "mount/Archive/3.043", "alias/3.043", ""}) {
        core->m_Files.m_UpdatesFolder = ToZString((folder / updates).string());
        core->m_GraphFile = ToZString((folder / "graph.json").string());
        Start();
        EXPECT_THAT(log.All(), testing::ContainsRegex(" may not be emptied: it (holds|lies in) ")) << updates;
        EXPECT_TRUE(fs::exists(folder / "mount/Archive/3.043/arbor_qm.pkg")) << updates;
        EXPECT_TRUE(fs::exists(folder / "graph.json")) << updates;
        log.Clear();
        Restart();
    }
}

TEST_F(Inventory, SaysWhyTheInstalledVersionIsUnknown) {
    Start(R"("SystemInfoFilePath":"$NO_SUCH_VARIABLE/Manifest.json")");
    EXPECT_TRUE(log.Has(3,
                        "The installed version is unknown: the manifest \"$NO_SUCH_VARIABLE/Manifest.json\" is not "
                        "configured, or names a variable that is not set"));
    Restart();
    Start();
    EXPECT_TRUE(log.Has(3, "Manifest.json\" does not exist")) << log.All();
    Restart();
    folder.Write("Manifest.json", R"({"systemVersion":"3.044"})");
    Start();
    EXPECT_TRUE(log.Has(3, "Manifest.json: \"className\" is not the name of a message class")) << log.All();
}

TEST_F(Inventory, RefusesARecordOfAnotherClass) {
    EXPECT_FALSE(graph->AddNode("ZNodeArborInstall", "n", ZMakeShared<ZLogParams>()));
    EXPECT_TRUE(log.Has(4, "Failed to cast config to ZSystemUpdaterConfigMsg (Class Name = <ZLogParams>)!"));
    EXPECT_FALSE(graph->AddNode("ZNodeArborInstall", "n", nullptr));
    EXPECT_TRUE(log.Has(4, "Failed to cast config to ZSystemUpdaterConfigMsg (Class Name = <nullptr>)!"));
}

}  // namespace
