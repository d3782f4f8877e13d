#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <fstream>
#include <set>

#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZNodeStorage.h"

namespace fs = std::filesystem;
using namespace testing;

TEST(DriveRules, TakeMountsByWhereTheyAre) {
    const std::pair<const char*, bool> cases[]{
        {"/media", false},         {"/media/usb", true},       {"/run/media/user/stick", true},
        {"/mediaplayer/a", false}, {"/mnt/elsewhere", false},  {"/mnt/fixed", true},
        {"/media/own", false},     {"/media/own/part", false}, {"/media/owner", true},
    };
    const DriveRules rules{{"/media", "/run/media"}, {"/mnt/fixed", "/nowhere"}, {"/media/own"}};
    for (const auto& [mount, counts] : cases) {
        EXPECT_EQ(FindDrives(rules, {{.source = "/dev/sda1", .root = "/", .target = mount}}).size(), counts ? 1U : 0U)
            << mount;
    }
}

/// A graph with the storage node and a probe that listens to it.
class Storage : public testing::Test {
protected:
    bool Start(const std::shared_ptr<ZNodeStorageCfg>& record) {
        core->m_Files.m_UpdatesFolder = ToZString((folder / "state/updates").string());
        graph = std::make_unique<ZGraph>(core);
        EXPECT_EQ(ErrorOf(graph->AddNode("ProbeNode", "probe", nullptr)), "");
        probe = cast_shared<ProbeNode>(graph->Node("probe"));
        probe->Listen(ZEndpointType::GraphService, "storagedeviceupdate");
        probe->Listen(ZEndpointType::GraphService, "newFile");
        return graph->AddNode("ZNodeStorage", "storage", record) && graph->Start();
    }

    std::vector<std::string> Devices() const {
        const auto answer = cast_shared<StorageDevicesMsg>(
            probe->Ask(ZEndpointType::GraphService, "getdevices", ZMakeShared<ZGenericRequestMsg>()));
        EXPECT_TRUE(answer);
        return {answer->m_Devices.begin(), answer->m_Devices.end()};
    }

    /// Everything told so far: "+path" and "-path" for drives, "file name" for files.
    std::vector<std::string> Told() const {
        std::vector<std::string> told;
        for (const auto& message : probe->Received()) {
            if (const auto file = cast_shared<FolderUpdateMsg>(message)) {
                told.push_back("file " + ToStdString(file->m_FileName));
                EXPECT_EQ(file->m_Folder, core->m_Files.m_UpdatesFolder);
            } else if (const auto drives = cast_shared<StorageDevicesMsg>(message)) {
                const auto tell = [&](char sign) {
                    return [&, sign](auto& path) { told.push_back(sign + ToStdString(path)); };
                };
                std::ranges::for_each(drives->m_RemovedDevices, tell('-'));
                std::ranges::for_each(drives->m_AddedDevices, tell('+'));
            }
        }
        return told;
    }

    bool WaitTold(const std::string& what, long count = 1) const {
        return WaitUntil([&] { return std::ranges::count(Told(), what) >= count; });
    }

    TemporaryFolder folder;
    std::shared_ptr<ZCoreConfigParams> core = ZMakeShared<ZCoreConfigParams>();
    std::shared_ptr<ProbeNode> probe;
    std::unique_ptr<ZGraph> graph;
};

TEST_F(Storage, TellsOfConfiguredDirectoriesThatComeGoAndAreReplaced) {
    folder.Write("one/a.pkg", "");
    folder.Write("two/a.pkg", "");
    const fs::path root = folder / "ports/usb/stick";
    const std::string came = '+' + root.string();
    const std::string left = '-' + root.string();
    auto record = ZMakeShared<ZNodeStorageCfg>("storage");
    record->m_Roots.push_back(ToZString(root.string()));
    ASSERT_TRUE(Start(record));
    EXPECT_THAT(Devices(), IsEmpty());

    fs::create_directories(root.parent_path());
    fs::rename(folder / "one", root);
    ASSERT_TRUE(WaitTold(came));
    EXPECT_THAT(Devices(), ElementsAre(root.string()));

    fs::rename(root, folder / "one");
    fs::rename(folder / "two", root);
    ASSERT_TRUE(WaitTold(left));
    ASSERT_TRUE(WaitTold(came, 2)) << PrintToString(Told());

    fs::remove(root / "a.pkg");
    ASSERT_TRUE(WaitTold(left, 2)) << "an empty directory is no drive";
    folder.Write("ports/usb/stick/b.pkg", "");
    ASSERT_TRUE(WaitTold(came, 3));
    fs::remove_all(folder / "ports");
    ASSERT_TRUE(WaitTold(left, 3));
}

/// This process gets no new descriptors while it lives.
class NoDescriptors {
public:
    NoDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        ::close(next);
        const rlimit none{static_cast<rlim_t>(next), m_before.rlim_max};
        if (IsPossible()) {
            ::setrlimit(RLIMIT_NOFILE, &none);
        }
    }
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    /// The address checker needs descriptors of its own to look at an object.
    static constexpr bool IsPossible() {
#if defined(__SANITIZE_ADDRESS__)
        return false;
#else
        return true;
#endif
    }

private:
    rlimit m_before{};
};

TEST_F(Storage, TellsOfMountsAsTheKernelDoes) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0) {
        GTEST_SKIP() << "this process may not mount anything";
    }
    const auto mount = [](const fs::path& place) {
        fs::create_directories(place);
        return ::mount("arbor-test", place.c_str(), "tmpfs", 0, "size=64k") == 0;
    };
    // The watcher may be looking at it.
    const auto unmount = [](const fs::path& place) { return WaitUntil([&] { return ::umount(place.c_str()) == 0; }); };
    const fs::path stick = folder / "media/user/a stick";
    const fs::path own = folder / "media/own";
    auto record = ZMakeShared<ZNodeStorageCfg>("storage");
    record->m_RemovableRoots = {ToZString((folder / "media/").string())};
    record->m_ExcludedRoots = {ToZString(own.string())};
    if (!mount(folder / "media/before")) {
        GTEST_SKIP() << "this process may not mount a tmpfs";
    }
    ASSERT_TRUE(Start(record));
    EXPECT_THAT(Devices(), ElementsAre((folder / "media/before").string()));

    ASSERT_TRUE(mount(own) && mount(stick));
    ASSERT_TRUE(WaitTold('+' + stick.string()));
    // Pulled and put back at once: the kernel gives the new mount the old one's place, number and device.
    ASSERT_TRUE(unmount(stick) && mount(stick));
    ASSERT_TRUE(WaitTold('-' + stick.string()));
    ASSERT_TRUE(WaitTold('+' + stick.string(), 2));
    ASSERT_TRUE(unmount(folder / "media/before"));
    ASSERT_TRUE(WaitTold('-' + (folder / "media/before").string()));
    EXPECT_THAT(Devices(), ElementsAre(stick.string()));
    const fs::path late = folder / "media/late";
    {
        const LogCapture log;
        const NoDescriptors none;
        ASSERT_TRUE(mount(late));
        ASSERT_TRUE(!none.IsPossible() ||
                    log.WaitFor(4, "Could not look at the storage: /proc/self/mountinfo could not be read"));
    }
    ASSERT_TRUE(WaitTold('+' + late.string())) << "the kernel told of it once";
    EXPECT_EQ(std::ranges::count(Told(), '+' + own.string()), 0);
    EXPECT_TRUE(unmount(own) && unmount(stick) && unmount(late));
}

TEST_F(Storage, TellsOfCompleteFilesInTheUpdatesFolder) {
    ASSERT_TRUE(Start(nullptr));
    const fs::path updates = folder / "state/updates";
    fs::rename(folder.Write("first.pkg", ""), updates / "first.pkg");
    ASSERT_TRUE(WaitTold("file first.pkg"));

    std::ofstream writing(updates / "slow.pkg");
    writing << "first half" << std::flush;
    std::ofstream(updates / ".hidden") << "in progress";
    fs::create_directory(folder / "directory");
    fs::rename(folder / "directory", updates / "directory");
    fs::rename(folder.Write("moved.pkg", ""), updates / "moved.pkg");
    ASSERT_TRUE(WaitTold("file moved.pkg"));
    EXPECT_EQ(std::ranges::count(Told(), "file slow.pkg"), 0) << "it is still being written";
    writing.close();
    ASSERT_TRUE(WaitTold("file slow.pkg"));

    folder.Write("new/updates/again.pkg", "");
    fs::remove_all(folder / "state");
    fs::rename(folder / "new", folder / "state");
    ASSERT_TRUE(WaitTold("file again.pkg")) << "the folder was made anew";
    std::ofstream(updates / "later.pkg") << "x";
    ASSERT_TRUE(WaitTold("file later.pkg"));
    const auto told = Told();
    EXPECT_THAT(
        (std::set<std::string>(told.begin(), told.end())),
        UnorderedElementsAre("file first.pkg", "file moved.pkg", "file slow.pkg", "file again.pkg", "file later.pkg"));
}

TEST_F(Storage, TellsOfFilesThatMayBeRunFromThenOnAndOfThoseThatGo) {
    ASSERT_TRUE(Start(nullptr));
    const fs::path updates = folder / "state/updates";
    // One that comes while the folder is first looked at may be told of twice; those that follow are told of once.
    fs::rename(folder.Write("first.pkg", ""), updates / "first.pkg");
    ASSERT_TRUE(WaitTold("file first.pkg"));
    fs::rename(folder.Write("a.pkg", ""), updates / "a.pkg");
    ASSERT_TRUE(WaitTold("file a.pkg"));
    fs::permissions(updates / "a.pkg", fs::perms::owner_all);
    ASSERT_TRUE(WaitTold("file a.pkg", 2)) << "it may be run";
    fs::last_write_time(updates / "a.pkg", fs::file_time_type::clock::now());
    fs::permissions(updates / "a.pkg", fs::perms::owner_read);
    ASSERT_TRUE(WaitTold("file a.pkg", 3)) << "it may not";
    fs::rename(updates / "a.pkg", updates / "b.pkg");
    ASSERT_TRUE(WaitTold("file a.pkg", 4)) << "it has gone";
    ASSERT_TRUE(WaitTold("file b.pkg"));
    std::ofstream(updates / ".hidden") << "in progress";
    fs::remove(updates / ".hidden");
    fs::remove(updates / "b.pkg");
    ASSERT_TRUE(WaitTold("file b.pkg", 2));
    fs::rename(folder.Write("c.pkg", ""), updates / "c.pkg");
    ASSERT_TRUE(WaitTold("file c.pkg"));
    fs::remove_all(folder / "state");
    ASSERT_TRUE(WaitTold("file c.pkg", 2));
    auto told = Told();
    std::erase(told, "file first.pkg");
    EXPECT_EQ(told.size(), 8U) << PrintToString(told);
}
