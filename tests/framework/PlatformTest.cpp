#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "TestSupport.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZFolderGuard.h"
#include "ZShared/ZMountTable.h"
#include "ZShared/ZPlatform.h"
#include "ZShared/ZReplaceFile.h"

using namespace std::chrono_literals;
using namespace testing;

namespace {

/// True when the process has ended; one that nobody has reaped yet counts.
bool HasEnded(const std::string& process) {
    const std::string status = ReadText("/proc/" + process + "/stat");
    const std::size_t name = status.rfind(')');
    return name == std::string::npos || status[name + 2] == 'Z';
}

std::string Identity() {
    std::string all;
    for (auto* read : {ZPlatform::ReadModel, ZPlatform::ReadSerialNumber, ZPlatform::ReadBoard}) {
        ZString text = "none";
        all += read(text) == (text != "none") ? ToStdString(text) + ' ' : "wrong ";
    }
    return all;
}

class Platform : public Test {
protected:
    void TearDown() override { ZPlatform::Configure({}); }
    LogCapture m_log;
    TemporaryFolder m_folder;
};

TEST_F(Platform, RunsCommandsToTheirEnd) {
    ::signal(SIGPIPE, SIG_IGN);  // as servers do; the command must have it as usual
    for (const std::string text : {"printf ' a\\nb\\n\\n'= a\nb=0", "cat; echo error >&2==0", "echo x; exit 3=x=3",
                                   "kill -s PIPE $$; echo survived==141", "/no/such/program==127"}) {
        const std::size_t expected = text.find('=');
        const std::size_t status = text.rfind('=');
        const std::string command = text.substr(0, expected);
        std::string output = "old";
        const auto done = [&output](const std::string& outcome) { output += '=' + outcome; };
        EXPECT_EQ(ZPlatform::ExecuteCommand(command, output), text.ends_with("=0"));
        EXPECT_EQ(ZPlatform::ExecuteCommand(command, {}, done), text.ends_with("=0"));
        EXPECT_EQ(output, text.substr(expected + 1, status - expected) + "exit status " + text.substr(status + 1));
    }
    std::string output;
    EXPECT_FALSE(ZPlatform::ExecuteCommand(std::string("echo \0 x", 8), output));
    EXPECT_EQ(output, "The command line holds a NUL character");
    EXPECT_TRUE(ZPlatform::ExecuteCommand("head -c 3000000 /dev/zero | tr '\\0' x", output));
    EXPECT_EQ(output, std::string(1U << 20, 'x'));
    EXPECT_THAT(m_log.All(), HasSubstr("Output beyond 1 MiB was dropped: 1951424 bytes of head"));
}

TEST_F(Platform, EndsTheWholeGroupAtTheTimeLimitAndElseNoneOfIt) {
    std::string child;
    EXPECT_TRUE(ZPlatform::ExecuteCommand("sleep 600 & echo $!", child));  // at once, although the output stays open
    EXPECT_FALSE(HasEnded(child));
    ::kill(std::stoi(child), SIGKILL);
    std::string output = "The";
    for (auto limit = 500ms; output.starts_with("The") && limit < 1min; limit *= 8) {  // the shell may be slow to begin
        ZPlatform::Configure({{}, {}, {}, limit});
        EXPECT_FALSE(ZPlatform::ExecuteCommand("sleep 600 & echo $!; wait", output));
        EXPECT_THAT(output, EndsWith("The command was ended after " +
                                     std::to_string(std::chrono::ceil<std::chrono::seconds>(limit).count()) + " s"));
    }
    EXPECT_TRUE(WaitUntil([&] { return HasEnded(output.substr(0, output.find('\n'))); })) << output;
}

TEST_F(Platform, HandsOnLinesAsTheyCome) {
    std::vector<std::string> lines;
    const auto keep = [&lines](std::string line) { lines.push_back(std::move(line)); };
    const auto fail = [](std::string) { throw std::runtime_error("torn"); };
    EXPECT_TRUE(ZPlatform::ExecuteCommand("printf ' 5%%\\r10%%\\r\\n\\nall\\nlast'", keep, {}));
    EXPECT_TRUE(ZPlatform::ExecuteCommand("head -c 100000 /dev/zero | tr '\\0' x", keep, {}));
    EXPECT_THAT(lines, ElementsAre(" 5%\r", "10%\r", "all", "last", SizeIs(65536), SizeIs(34464)));
    EXPECT_FALSE(ZPlatform::ExecuteCommand("echo x; sleep 600", fail, {}));
}

TEST_F(Platform, StartsProgramsInASessionOfTheirOwnAndLogsTheirEnds) {
    const std::string script = "read -r id n s p g session rest < /proc/self/stat; [ $id = $session ] && exit 7";
    for (std::ptrdiff_t round = 1; round <= 3; ++round) {  // the thread that waits for them ends and comes back
        for (int child = 0; child < 10; ++child) {
            ASSERT_TRUE(ZPlatform::ExecuteCommand(std::vector<std::string>{"/bin/sh", "-c", script}));
        }
        const auto ended = [](const auto& line) { return line.text.ends_with("ended with status 7"); };
        EXPECT_TRUE(WaitUntil([&] { return std::ranges::count_if(m_log.Lines(), ended) == 10 * round; }))
            << m_log.All();
    }
    const std::pair<std::vector<std::string>, std::string> bad[]{
        {{"/no/such"}, "/no/such: No such file or directory"},
        {{m_folder.Write("text", "x")}, "/text: Permission denied"},
        {{m_folder.Write("program", "x", 0755)}, "/program: Exec format error"},
        {{}, "no program given"}};
    for (const auto& [arguments, line] : bad) {
        EXPECT_FALSE(ZPlatform::ExecuteCommand(arguments));
        EXPECT_TRUE(m_log.Has(4, line)) << line << m_log.All();
    }
}

TEST_F(Platform, ReadsTheIdentityFromASoundEepromOnly) {
    constexpr char kBytes[] =
        "TlvInfo\0\x01\x00\x2b\x21\x06KiteLX\x24\x06\x02\0\0\0\0\x01\x23\x04SN-7\x28\x0dverdin-"
        "imx8mm\xfe\x04\xa1\x3f\xcb\x7d";
    const std::string sound(kBytes, sizeof kBytes - 1);
    const std::tuple<std::size_t, char, std::string> bad[]{
        {0, 'X', "no TlvInfo header of version 1"},
        {8, 2, "no TlvInfo header of version 1"},
        {10, '\x2c', "the image is shorter than its header says"},
        {12, '\xff', "a field reaches past the end"},
        {13, 'k', "the checksum is wrong"},
        {48, 1, "there is no checksum"},
    };
    for (const auto& [at, byte, reason] : bad) {
        const LogCapture log;
        ZPlatform::Configure({m_folder.Write("eeprom", std::string(sound).replace(at, 1, 1, byte)), {}, {}, 1min});
        EXPECT_EQ(Identity(), "none none none ");
        EXPECT_TRUE(log.Has(3, "/eeprom: " + reason)) << log.All();
    }
    ZPlatform::Configure({m_folder.Write("eeprom", sound + std::string(4096, '\xff')), {}, {}, 1min});
    EXPECT_EQ(Identity(), "KiteLX SN-7 verdin-imx8mm ");
    ZPlatform::Configure({m_folder / "eeprom", ZIdentity{"QMA", "", ""}, {}, 1min});
    EXPECT_EQ(Identity(), "QMA none none ");
}

TEST_F(Platform, KnowsWhereDevicesAreMounted) {
    const auto mounts = ReadMountTable();
    const auto proc = std::ranges::find(mounts, "/proc", &ZMount::target);
    ASSERT_TRUE(proc != mounts.end() && ZPlatform::GetMountPointFromDevice(proc->source).starts_with('/'));
    ZPlatform::Configure({{}, {}, {{"/dev/stick", "/media/stick"}}, 1min});
    EXPECT_EQ(ZPlatform::GetMountPointFromDevice("/dev/stick") + ZPlatform::GetMountPointFromDevice("/x"),
              "/media/stick");
}

TEST_F(Platform, KeepsFoldersOfTheSystemFromBeingEmptiedHoweverTheyAreSpelled) {
    for (const char* folder : {"/home/alice", "/home/alice/", "/home//alice/.", "/var/lib/", "/usr/share/x/"}) {
        EXPECT_THAT(ErrorOf(MayBeEmptied(folder, {})), HasSubstr("it belongs to the system")) << folder;
    }
    EXPECT_EQ(ErrorOf(MayBeEmptied("/home/alice/updates/", {})), "");
}

TEST_F(Platform, DoesNotBelieveTheDeviceThatAMountOfAUsersProgramNames) {
    // Any user may make such a mount (fusermount -o fsname=DEVICE): it must not become the archive.
    const std::string mountPoint = (m_folder / "users").string();
    std::filesystem::create_directory(mountPoint);
    const ZFileDescriptor program(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
    const std::string options = "fd=" + std::to_string(program.Get()) + ",rootmode=40000,user_id=65534,group_id=65534";
    if (!program || ::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("/dev/arbor-data", mountPoint.c_str(), "fuse", 0, options.c_str()) != 0) {
        GTEST_SKIP() << "this process may not mount anything";
    }
    const auto mounts = ReadMountTable();
    EXPECT_NE(std::ranges::find(mounts, "/dev/arbor-data", &ZMount::source), mounts.end());
    EXPECT_EQ(ZPlatform::GetMountPointFromDevice("/dev/arbor-data"), "");
    ::umount2(mountPoint.c_str(), MNT_DETACH);
}

TEST_F(Platform, KnowsADeviceUnderAnyOfItsNames) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0) {
        GTEST_SKIP() << "this process may not mount anything";
    }
    const std::string image = (m_folder / "image").string();
    const std::string mountPoint = (m_folder / "mounted").string();
    std::filesystem::create_directory(mountPoint);
    std::string device;
    if (!ZPlatform::ExecuteCommand(
            "truncate -s 4M " + image + " && mkfs.ext4 -q " + image + " && losetup -f --show " + image, device)) {
        GTEST_SKIP() << "no loop device is to be had";
    }
    const bool mounted = ::mount(device.c_str(), mountPoint.c_str(), "ext4", 0, nullptr) == 0;
    std::filesystem::create_symlink(device, m_folder / "by-label");
    const std::string link = ZPlatform::GetMountPointFromDevice((m_folder / "by-label").string());
    const std::string own = ZPlatform::GetMountPointFromDevice(device);
    const auto above = MayBeEmptied(m_folder.Path(), {});
    const auto itself = MayBeEmptied(mountPoint, {});
    const auto asArchive = MayBeEmptied(mountPoint, {}, m_folder.Path());
    ::umount(mountPoint.c_str());
    const std::string afterwards = ZPlatform::GetMountPointFromDevice((m_folder / "by-label").string());
    ZPlatform::ExecuteCommand("losetup -d " + device, device);
    if (mounted) {
        EXPECT_EQ(own, mountPoint);
        EXPECT_EQ(link, mountPoint);
        EXPECT_THAT(ErrorOf(above), HasSubstr("something is mounted at " + mountPoint))
            << "deleting would reach into it";
        EXPECT_EQ(ErrorOf(itself), "") << "a folder may have a file system of its own";
        EXPECT_THAT(ErrorOf(asArchive), HasSubstr("something is mounted at " + mountPoint));
    }
    EXPECT_EQ(afterwards, "");
}

TEST_F(Platform, AFileThatIsReplacedIsAllowedWhatItIsToBeWhateverOtherNewOnesAre) {
    const mode_t before = ::umask(077);
    const auto modeOf = [this](std::optional<mode_t> mode) {
        EXPECT_TRUE(ReplaceFile(m_folder / "file", "text", mode));
        return std::filesystem::status(m_folder / "file").permissions();
    };
    EXPECT_EQ(modeOf(0644), std::filesystem::perms(0644));
    EXPECT_EQ(modeOf({}), std::filesystem::perms(0600));
    ::umask(before);
}

}  // namespace
