// What careless or hostile packages and manifests can hold: each is told of, and the next good input works.

#include <sys/stat.h>

#include <csignal>
#include <regex>
#include <sstream>

#include "NodeFixture.h"

namespace fs = std::filesystem;
using namespace testing;

namespace {

class BadInput : public NodeFixture {
protected:
    BadInput() { probe->Listen(ZEndpointType::GraphService, "updateavailable"); }
    ~BadInput() override {
        std::istringstream stayed(ReadText(folder / "stayed"));
        for (pid_t process = 0; stayed >> process;) {
            ::kill(process, SIGKILL);
        }
    }

    /// What the node says is there once it has checked the drive's file.
    std::vector<std::string> Check(const std::string& name) { return AnnounceFile(Drive() / name); }
    void ExpectGoodPackageWorks() {
        node->RemoveStorageDevices({ToZString(Drive().string())});
        Package("good.pkg", "3.045");
        EXPECT_THAT(Check("good.pkg"), ElementsAre("3.045 System"));
    }
};

TEST_F(BadInput, OfAPackageThatIsCheckedIsToldAndTheNextPackageWorks) {
    InstallSystem("3.000");
    Start();
    const std::string stay = "sleep 600 & echo $! >> " + (folder / "stayed").string();
    const std::string many = "3" + std::regex_replace(std::string(10'000, 'x'), std::regex("x"), ".1");
    const std::string answer = folder.Write("many", many).string();
    const std::string dots = folder.Write("dots", std::string(10'000, '.')).string();
    const struct {
        std::string name, script, record, line;  // "R" in the record: rejected as no package
    } rows[] = {
        {"flood", "head -c 300000000 /dev/zero", "unknown R", "MiB was dropped: 298951424 bytes of '"},
        {"flood behind", "echo 3.1; head -c 300000000 /dev/zero", "unknown R", "> Invalid package <3.1\\n"},
        {"complains", "yes complaint | head -c 100000000 >&2; exit 3", "unknown R", "complaint"},
        {"stays", stay + "; echo 3.2", "3.2 System", "Package version <3.2 - "},
        {"stays and floods", "echo 3.3; [ $1 = --version ] || yes &", "3.3 System", "Package version <3.3 - "},
        {"vanishes", "rm \"$0\"; echo 3.4", "3.4 R", "Verification failed on "},
        {"vanishes late", "[ $1 = --version ] || rm \"$0\"; echo 3.5", "3.5 R", "vanishes late.pkg> went away"},
        {"ends its group", "kill -9 0", "unknown R", "--version failed"},
        {"controls", "printf '3.6\\033[2J\\r\\n3.7\\302\\205'", "3.6\x1b[2J\r\n3.7\xC2\x85 System",
         "<3.6\\x1b[2J\\r\\n3.7\\xc2\\x85 - "},
        {"many", "cat " + answer, many + " System", "bytes left out"},
        {"dots", "cat " + dots, "unknown R", "bytes left out"},
    };
    for (const auto& [name, script, record, line] : rows) {
        SCOPED_TRACE(name);
        const std::string file = folder.Write("drive/" + name + ".pkg", "#!/bin/sh\n" + script + "\n", 0755).string();
        const std::string wanted =
            record.ends_with(" R") ? record.substr(0, record.size() - 1) + file + " rejected 7" : record;
        EXPECT_THAT(Check(name + ".pkg"), Contains(wanted));
        EXPECT_THAT(log.All(), HasSubstr(line));
        ExpectGoodPackageWorks();
    }
    for (const auto& line : log.Lines()) {
        EXPECT_LT(line.text.size(), 10'000u);
    }
    EXPECT_LT(log.Lines().size(), 500u) << "a flood of complaints must not wash away the log";
}

TEST_F(BadInput, InPlaceOfAPackageIsRefusedAndTheNextPackageWorks) {
    Start();
    fs::create_directories(Drive() / "folder.pkg");
    ASSERT_EQ(::mkfifo((Drive() / "pipe.pkg").c_str(), 0755), 0);
    folder.Write("drive/empty.pkg", "", 0755);
    folder.Write("drive/nul.pkg", "#!/bin/sh\necho 3.1\n", 0755);
    for (const std::string& name : {std::string("folder.pkg"), std::string("pipe.pkg"), std::string("empty.pkg"),
                                    std::string("nul.pkg\0.pkg", 12)}) {
        EXPECT_THAT(Check(name), Contains("unknown " + (Drive() / name).string() + " rejected 7")) << name;
        ExpectGoodPackageWorks();
    }
}

TEST_F(BadInput, InAManifestIsRefusedOrReadAsItStands) {
    fs::create_directory(folder / "Manifest.json");
    Start();
    EXPECT_TRUE(log.Has(3, "Could not recognize " + (folder / "Manifest.json").string() + " as a System Manifest"));
    EXPECT_TRUE(AskClient("getinstalledversioninfo", Z_MAKE(ZGenericRequestMsg)));
    std::string huge;
    huge.resize(17'000'000, 'x');
    const std::string head = R"({"className":"ZSystemManifestMsg","systemVersion":)";
    const std::pair<std::string, std::string> rows[] = {
        {"", "refused"},
        {head + "3.1}", "refused"},
        {head + R"("3.1","components":[7]})", "refused"},
        {head + R"("3.1","components":)" + std::string(100'000, '['), "refused"},
        {head + R"("3.1","installerVersion":")" + huge + "\"}", "refused"},
        {head + "\"3.1\xff\"}", "refused"},
        {head + R"("3.1","systemVersion":"3.2"})", "3.2"},
        {head + R"("3.1\n\u0000\u001b"})", std::string("3.1\n\0\x1b", 6)},
        {head + "\"" + std::string(10'000, '.') + "\"}", std::string(10'000, '.')},
    };
    for (const auto& [text, version] : rows) {
        const auto manifest = node->LoadManifest(folder.Write("manifest", text));
        EXPECT_EQ(manifest ? ToStdString(manifest->m_SystemVersion) : "refused", version) << text.substr(0, 100);
    }
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0644), 0);
    EXPECT_FALSE(node->LoadManifest(folder / "pipe"));
}

TEST_F(BadInput, InTheArchivesPlaceCostsTheArchiveOnly) {
    fs::remove(folder / "mount/Archive");
    fs::create_symlink("Archive", folder / "mount/Archive");
    Start();
    EXPECT_TRUE(log.Has(4, "Filesystem exception for archive path <" + (folder / "mount/Archive").string() + ">"));
    ExpectGoodPackageWorks();
    const auto answer = AskForUpdate(UpdateTo("3.045"));
    ASSERT_TRUE(answer && !answer->m_bSuccess) << "its installer would run, and nobody see how far it is";
    EXPECT_THAT(ToStdString(answer->m_ErrorText), HasSubstr("progress: Too many levels of symbolic links"));
    EXPECT_TRUE(log.Has(4, "Unable to bind() socket: Too many levels of symbolic links"));
    EXPECT_FALSE(fs::exists(Drive() / "good.pkg.args"));
}

}  // namespace
