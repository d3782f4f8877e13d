#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>

#include <random>

#include "NodeBase/ZGraph.h"
#include "TestSupport.h"
#include "ZMessages/PeerMessages.h"
#include "ZNodeFileIO.h"
#include "ZShared/ZPlatform.h"
#include "text/Base64.h"

namespace fs = std::filesystem;
using namespace testing;

/// Bytes in no order that a lost or doubled block would leave as it is.
static std::string Content(std::size_t size) {
    std::string content(size, '\0');
    std::ranges::generate(content, [x = std::minstd_rand()]() mutable { return static_cast<char>(x() >> 8U); });
    return content;
}

TEST(Base64, IsReadOnlyWhenItIsExactlyThat) {
    std::vector<char> bytes;
    for (const std::size_t size : {0U, 1U, 2U, 3U, 4U, 255U, 256U, 257U}) {
        const std::string content = Content(size);
        EXPECT_TRUE(text::DecodeBase64(text::Base64<ZString>(content), bytes) && std::ranges::equal(bytes, content))
            << size;
    }
    EXPECT_EQ(text::Base64<ZString>("\xfb\xff\xbf!"), "+/+/IQ==");
    for (const char* text : {"Q", "QQ", "QUJ", "QQ=\n", "====", "Q===", "QQ=a", "=QQQ", "QQ==QQ==", "QUI=QUI=", "    ",
                             " QUJ", "QUJ ", "QUJD\n   ", "    QUJD", "QUJD----", "QUJD-UJD", "QU_D", "QUJ\xc3"}) {
        EXPECT_FALSE(text::DecodeBase64(text, bytes)) << text;
    }
}

/// A graph with the file service, the storage watch on the same folder and a probe that asks.
class FileIO : public Test {
protected:
    static constexpr std::uint32_t kChunk = 776700;
    static constexpr auto kDone = "done ";

    FileIO() {
        ZPlatform::Configure({"", ZIdentity{"QMB", "SN1", ""}, {}});
        fs::create_directories(root);
    }

    bool Start() {
        const auto core = ZMakeShared<ZCoreConfigParams>();
        core->m_Files.m_UpdatesFolder = ToZString(root.string() + '/');
        graph = std::make_unique<ZGraph>(core);
        EXPECT_EQ(ErrorOf(graph->AddNode("ProbeNode", "probe", nullptr)), "");
        probe = cast_shared<ProbeNode>(graph->Node("probe"));
        return graph->AddNode("ZNodeFileIO", "files", record) && graph->AddNode("ZNodeStorage", "storage", nullptr) &&
               graph->Start();
    }

    /// "done" or the error code's name, and the text.
    std::string Ask(const std::shared_ptr<ZMessage>& message) {
        const auto answer = probe->Ask(ZEndpointType::DeviceRequest, "fileIO", message);
        // Every answer derives from this one, whatever it is registered as.
        const auto* const outcome = dynamic_cast<const ZGenericResponseMsg*>(answer.get());
        if (outcome == nullptr) {
            return "no answer";
        }
        const auto code = outcome->m_bSuccess ? "done" : magic_enum::enum_name(outcome->m_ErrorCode);
        return std::string(code) + ' ' + ToStdString(outcome->m_ErrorText);
    }
    template <typename Message>
    static std::shared_ptr<Message> Make(const fs::path& path, const ZString& serialNumber = "") {
        auto message = ZMakeShared<Message>();
        message->m_FilePath = ToZString(path.string());
        message->m_SerialNumber = serialNumber;
        message->m_DeviceModel = serialNumber.empty() ? ZDeviceModel::KiteQM : ZDeviceModel::QMB;
        return message;
    }
    std::string Open(const fs::path& path, std::int32_t mode = 0644, std::int64_t size = -1) {
        const auto message = Make<ZFileOpenMsg>(path);
        message->m_Mode = mode;
        message->m_Size = size;
        return Ask(message);
    }
    std::string Write(const ZString& base64, std::int64_t position = -1) {
        const auto message = Make<ZFileWriteMsg>(file);
        message->m_Data = base64;
        message->m_Position = position;
        return Ask(message);
    }
    std::string Close(const fs::path& path) { return Ask(Make<ZFileCloseMsg>(path)); }

    static std::set<std::string> Files(const fs::path& below) {
        std::set<std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator(below)) {
            if (!fs::is_directory(entry.symlink_status())) {
                files.insert(entry.path().lexically_relative(below).string());
            }
        }
        return files;
    }

    TemporaryFolder folder;
    const fs::path root = folder / "state/updates";
    const fs::path file = root / "u.pkg";
    std::shared_ptr<ZNodeFileIOCfg> record = ZMakeShared<ZNodeFileIOCfg>("files");
    std::shared_ptr<ProbeNode> probe;
    std::unique_ptr<ZGraph> graph;
    LogCapture log;
};

TEST_F(FileIO, BringsFilesWholeAndShowsThemOnlyThen) {
    ASSERT_TRUE(Start());
    probe->Listen(ZEndpointType::GraphService, "newFile");
    std::string before;
    const std::pair<std::size_t, int> cases[] = {{0, 0600}, {1, 0777}, {kChunk, 0440}, {kChunk + 1, 0755}};
    for (std::size_t told = 1; const auto& [size, mode] : cases) {
        const std::string content = Content(size);
        ASSERT_EQ(Open(file, mode), kDone);
        for (std::size_t at = 0; at < size; at += kChunk) {
            ASSERT_EQ(Write(text::Base64<ZString>(std::string_view(content).substr(at, kChunk))), kDone);
        }
        ASSERT_EQ(Files(root).size(), told == 1 ? 1U : 2U);
        EXPECT_THAT(*Files(root).begin(), AllOf(StartsWith("."), EndsWith(".part")));
        EXPECT_EQ(ReadText(file), before) << "the older file stays until the new one is whole";
        ASSERT_EQ(Close(file), kDone);
        EXPECT_THAT(Files(root), ElementsAre("u.pkg"));
        EXPECT_EQ(ReadText(file), content);
        EXPECT_EQ(static_cast<int>(fs::status(file).permissions()), mode);
        ASSERT_TRUE(probe->WaitForMessages(told++)) << "no other node was told of it";
        before = content;
    }
    const auto read = Make<ZFileReadMsg>(file);
    read->m_Length = UINT32_MAX;
    for (const std::uint32_t position : {0U, 7U, kChunk + 1}) {
        read->m_Position = position;
        const auto part = cast_shared<ZFileReadResponseMsg>(probe->Ask(ZEndpointType::DeviceRequest, "fileIO", read));
        ASSERT_TRUE(part && part->m_bSuccess && part->m_Size == before.size());
        EXPECT_EQ(part->m_Data, text::Base64<ZString>(before.substr(position, kChunk)));
    }
}

TEST_F(FileIO, StaysBelowItsFolders) {
    folder.Write("outside/secret.pkg", "");
    folder.Write("state/updates/folder/inner", "");
    fs::create_directory_symlink(folder / "outside", root / "way out");
    fs::create_symlink(folder / "outside/secret.pkg", root / "link.pkg");
    ASSERT_TRUE(Start());
    const auto present = Files(folder.Path());
    const std::string base = root.string() + '/';
    const std::vector<std::pair<const char*, std::vector<std::string>>> cases = {
        {": there is no name", {""}},
        {": the path is not absolute", {"u.pkg", "../u.pkg"}},
        {": the name is a folder's", {base, base + ".", base + "..", base + "new/"}},
        {"outside the folders", {root, base + "../u.pkg", base + "a/../../b/u.pkg", root.string() + "2/u.pkg"}},
        {"outside the folders", {base + "way out/secret.pkg", base + "way out/../u.pkg", "/proc/self/root/etc/u"}},
        {" a directory", {base + "folder", base + "folder/inner/u.pkg"}},
        {"no regular file", {base + "link.pkg"}},
        {"being written", {base + ".x.part"}},
        {"longer than 4095 bytes", {base + std::string(10'000, 'x')}},
        {"File name too long", {base + std::string(256, 'x')}},
        {"a quote or a control character", {base + "a\nb", base + '\0', base + "\x7f", base + "a\"b", base + "a'b/c"}},
    };
    for (const auto& [reason, paths] : cases) {
        for (const std::string& path : paths) {
            for (const std::string& said : {Open(path), Ask(Make<ZFileReadMsg>(path))}) {
                EXPECT_THAT(said, AllOf(MatchesRegex("ERRCODE_INVALID[ -~]+"), SizeIs(Lt(1000)), HasSubstr(reason)));
                EXPECT_TRUE(log.Has(3, said.substr(said.find(' ') + 1))) << said;
            }
        }
    }
    EXPECT_THAT(Open(file, 04755), HasSubstr("more than permission bits"));
    EXPECT_THAT(Ask(Make<ZFileReadMsg>(file)), StartsWith("ERRCODE_NOT_FOUND"));
    EXPECT_EQ(Files(folder.Path()), present);
    ASSERT_EQ(Open(root / "later/./u.pkg"), kDone);
    ASSERT_EQ(Close(root / "later/./u.pkg"), kDone);
    ASSERT_EQ(Open(root / "new/../new/u.pkg"), kDone);
    EXPECT_THAT(Open(root / "new/u.pkg"), StartsWith("ERRCODE_BUSY"));
    fs::rename(root / "new", root / "moved");
    fs::create_directory_symlink(folder / "outside", root / "new");
    EXPECT_EQ(Close(root / "new/../new/u.pkg"), kDone);
    EXPECT_TRUE(fs::exists(root / "moved/u.pkg") && !fs::exists(root / "new/u.pkg")) << "it followed the link";
    fs::remove_all(root);
    EXPECT_THAT(Open(file), HasSubstr("No such file or directory"));
}

TEST_F(FileIO, KnowsWhoOpenedWhat) {
    record->m_MaxOpenFiles = 2;
    ASSERT_TRUE(Start());
    EXPECT_THAT(Write("eA=="), StartsWith("ERRCODE_NOT_FOUND"));
    ASSERT_EQ(Open(file), kDone);
    EXPECT_EQ(Open(file), "ERRCODE_BUSY " + file.string() + ": it is open already");
    EXPECT_THAT(Ask(Make<ZFileWriteMsg>(file, "SN1")), StartsWith("ERRCODE_INVALID_REQUEST"));
    EXPECT_THAT(Ask(Make<ZFileCloseMsg>(file, "SN1")), StartsWith("ERRCODE_INVALID_REQUEST"));
    EXPECT_EQ(Ask(Make<ZFileOpenMsg>(root / "v.pkg", "SN1")), kDone);
    EXPECT_THAT(Open(root / "w.pkg"), AllOf(StartsWith("ERRCODE_BUSY"), EndsWith("2 files are open already")));
    EXPECT_THAT(Ask(ZMakeShared<ZGenericRequestMsg>()), StartsWith("ERRCODE_NOT_SUPPORTED"));
    const std::string broken = "ERRCODE_INVALID_REQUEST " + file.string() + ": the data is no base64";
    EXPECT_EQ(Write("QUJD!"), broken);
    EXPECT_EQ(Close(file), broken);
    EXPECT_EQ(Ask(Make<ZFileCloseMsg>(root / "v.pkg", "SN1")), kDone);
    ASSERT_EQ(Open(file), kDone);
    EXPECT_EQ(Write("eHl6", 0), kDone);
    const std::string gap = "ERRCODE_INVALID_REQUEST " + file.string() + ": a chunk for position 6 came at 3";
    EXPECT_EQ(Write("eHl6", 6), gap) << "the one before was lost on its way";
    EXPECT_EQ(Close(file), gap);
    ASSERT_EQ(Open(file, 0644, 4), kDone);
    EXPECT_EQ(Write("eHl6"), kDone);
    EXPECT_EQ(Close(file), "ERRCODE_INVALID_REQUEST " + file.string() + ": 3 bytes came instead of 4");
    EXPECT_THAT(Files(root), ElementsAre("v.pkg"));
}

TEST_F(FileIO, LetsNobodyEndOrHinderWhatAnotherBrings) {
    record->m_MaxOpenFiles = 4;
    ASSERT_TRUE(Start());
    const auto as = [](const char* asker, auto message) {
        message->SetOrigin(std::make_shared<ZRequestOrigin>(asker, ""));
        return message;
    };
    const auto write = [&](const char* asker) {
        auto message = Make<ZFileWriteMsg>(file);
        message->m_Data = "eHl6";
        return Ask(as(asker, message));
    };
    ASSERT_EQ(Ask(as("user alice", Make<ZFileOpenMsg>(file))), kDone);
    const std::string refused = "ERRCODE_INVALID_REQUEST " + file.string() + ": somebody else opened it";
    EXPECT_EQ(write("device SN1"), refused);
    EXPECT_EQ(Ask(as("user bob", Make<ZFileCloseMsg>(file))), refused);
    EXPECT_EQ(write("user alice"), kDone);
    EXPECT_EQ(Ask(as("user alice", Make<ZFileCloseMsg>(file))), kDone);
    EXPECT_EQ(ReadText(file), "xyz");

    for (const char* const name : {"1.pkg", "2.pkg", "3.pkg"}) {
        EXPECT_EQ(Ask(as("user bob", Make<ZFileOpenMsg>(root / name))), kDone);
    }
    EXPECT_THAT(Ask(as("user bob", Make<ZFileOpenMsg>(root / "4.pkg"))), StartsWith("ERRCODE_BUSY"));
    EXPECT_EQ(Ask(as("user alice", Make<ZFileOpenMsg>(root / "4.pkg"))), kDone);
}

TEST_F(FileIO, GivesNoNameToAFileThatTheDiskHadNoRoomFor) {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("arbor-test", root.c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "this process may not mount a tmpfs";
    }
    EXPECT_TRUE(Start());
    const std::string full = file.string() + ": No space left on device";
    const ZString chunk = text::Base64<ZString>(Content(kChunk));
    EXPECT_EQ(Open(file), kDone);
    EXPECT_EQ(Write(chunk), kDone);
    EXPECT_EQ(Write(chunk), "ERRCODE_NONE " + full);
    EXPECT_THAT(Files(root), IsEmpty()) << "it gives its room back at once";
    EXPECT_EQ(Write("eA=="), "ERRCODE_NONE " + full);
    EXPECT_EQ(Close(file), "ERRCODE_NONE " + full);
    EXPECT_TRUE(log.Has(4, full)) << log.All();
    EXPECT_THAT(Files(root), IsEmpty());
    graph.reset();
    EXPECT_EQ(::umount(root.c_str()), 0);
}

TEST_F(FileIO, LeavesNothingUnfinishedBehind) {
    folder.Write("state/updates/.12-34.part", "");
    folder.Write("state/updates/.keep", "");
    record->m_IdleSeconds = 1;
    ASSERT_TRUE(Start());
    EXPECT_THAT(Files(root), ElementsAre(".keep"));
    for (const char* name : {"sub/first.pkg", "second.pkg"}) {
        ASSERT_EQ(Open(root / name), kDone);
        ASSERT_TRUE(log.WaitFor(3, (root / name).string() + " was thrown away: nobody used it for 1 s"));
        EXPECT_THAT(Close(root / name), StartsWith("ERRCODE_NOT_FOUND"));
    }
    ASSERT_EQ(Open(file), kDone);
    graph.reset();
    EXPECT_THAT(Files(root), ElementsAre(".keep"));
}

TEST_F(FileIO, HandsOverWhatIsForAnotherDevice) {
    ASSERT_TRUE(Start());
    EXPECT_THAT(Ask(Make<ZFileOpenMsg>(file, "P1")), HasSubstr("NOT_CONNECTED " + file.string() + ": device P1"));
    probe->Listen(ZEndpointType::GraphService, "forward", [&](const std::shared_ptr<ZMessage>& message) {
        const auto forward = cast_shared<ZForwardMsg>(message);
        const auto response = ZMakeShared<ZGenericResponseMsg>();
        response->m_ErrorText = magic_enum::enum_name(forward->m_DeviceModel);
        response->m_ErrorText += ' ' + forward->m_SerialNumber + ' ' + forward->m_Keyword + ' ';
        response->m_ErrorText += std::static_pointer_cast<ZFileMsg>(forward->m_pMessage)->m_FilePath;
        probe->PublishResponse(forward->m_pMessage, response);
        return nullptr;
    });
    const auto other = Make<ZFileCloseMsg>("/elsewhere.pkg", "SN1");
    other->m_DeviceModel = ZDeviceModel::QMC;
    EXPECT_EQ(Ask(other), "done QMC SN1 upload /elsewhere.pkg");
    EXPECT_EQ(Ask(Make<ZFileOpenMsg>(root / "a/u.pkg", "P1")), "done QMB P1 upload a/u.pkg");
    EXPECT_EQ(Ask(Make<ZFileOpenMsg>(file, "SN1")), kDone) << "this device";
    EXPECT_THAT(Ask(Make<ZFileReadMsg>(file, "P1")), HasSubstr("a file can't be read from another device"));
}
