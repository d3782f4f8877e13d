#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>

#include "ZShared/ZFileDescriptor.h"
#include "ZTrust/ZTrust.h"

namespace fs = std::filesystem;
namespace json = boost::json;

namespace {

/// Several hundred good and bad files, and what is to be found about each.
class Corpus : public testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string folder = (fs::temp_directory_path() / "arbor-corpus-XXXXXX").string();
        ASSERT_NE(nullptr, ::mkdtemp(folder.data()));
        s_folder = folder;
        const std::string command = PYTHON " -B " CORPUS " " + folder + " > " + folder + "/said";
        ASSERT_EQ(0, std::system(command.c_str())) << command;
        std::ifstream file(s_folder / "expected.json");
        s_expected = json::parse(std::string(std::istreambuf_iterator<char>(file), {}));
    }
    static void TearDownTestSuite() { fs::remove_all(s_folder); }

    static ZFileDescriptor Open(const fs::path& file) {
        return ZFileDescriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    }

    struct Found {
        std::string verdict;
        std::string payload;
        std::string sentence;
    };
    static Found Judge(const fs::path& path, const std::string& board, const ZTrustedSigners& trusted) {
        const ZFileDescriptor file = Open(path);
        auto package = ZPackage::Read(file.Get());
        const ZFileDescriptor signature = Open(path.string() + ".sig");
        if (!package && package.error().code == ZVerdictCode::NotPackage && signature) {
            package = ZPackage::ReadDetached(file.Get(), signature.Get());
        }
        if (!package) {
            return {ToText(package.error().code), "", package.error().sentence};
        }
        const ZVerdict verdict = trusted.Judge(*package, {.board = board});
        const bool hasOwnPayload = package->format == 2 && !package->isDetached;
        const std::string payload = !hasOwnPayload ? "" : package->CheckPayload(file.Get()).IsGood() ? "good" : "bad";
        return {ToText(verdict.code), payload, verdict.sentence};
    }

    static inline fs::path s_folder;
    static inline json::value s_expected;
};

TEST_F(Corpus, IsJudgedAsTheBuildersReaderJudgesIt) {
    const auto trusted = ZTrustedSigners::Load((s_folder / "trust").string());
    ASSERT_TRUE(trusted);
    ASSERT_GT(s_expected.as_array().size(), 400U);
    for (const json::value& row : s_expected.as_array()) {
        const auto text = [&](const char* key) {
            const json::value* const value = row.as_object().if_contains(key);
            return value != nullptr ? std::string(value->as_string()) : std::string();
        };
        const Found found = Judge(s_folder / "files" / text("file"), text("board"), *trusted);
        EXPECT_EQ(text("verdict"), found.verdict) << text("file") << ": " << found.sentence;
        EXPECT_EQ(text("payload"), found.payload) << text("file");
        EXPECT_NE("", found.sentence) << text("file");
    }
}

TEST_F(Corpus, NobodyIsTrustedWithoutCertificates) {
    const ZFileDescriptor file = Open(s_folder / "files" / "2-trusted");
    const auto package = ZPackage::Read(file.Get());
    ASSERT_TRUE(package);
    EXPECT_EQ(ZVerdictCode::UnknownSigner, ZTrustedSigners().Judge(*package, {}).code);
    EXPECT_TRUE(ZTrustedSigners::CheckSignatures(*package).IsGood());
    fs::create_directory(s_folder / "empty");
    for (const char* const folder : {"empty", "missing", "expected.json"}) {
        EXPECT_FALSE(ZTrustedSigners::Load((s_folder / folder).string())) << folder;
    }
}

}  // namespace
