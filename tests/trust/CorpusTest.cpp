#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>

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
        s_expected = json::parse(Content("expected.json"));
    }
    static void TearDownTestSuite() { fs::remove_all(s_folder); }

    static std::string Content(const fs::path& file) {
        std::ifstream stream(s_folder / file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static std::string Text(const json::value& row, const char* key, const char* otherwise = "") {
        const json::value* const value = row.as_object().if_contains(key);
        return std::string(value != nullptr ? value->as_string() : json::string(otherwise));
    }
    static ZResult<ZTrustedSigners> Load(const std::string& trust, const std::string& state = "") {
        return ZTrustedSigners::Load((s_folder / trust).string(), state.empty() ? "" : (s_folder / state).string());
    }
    /// A folder that has just this in place of a trust document.
    static fs::path FolderWith(const std::string& document) {
        const fs::path folder = s_folder / "tried";
        fs::remove_all(folder);
        fs::create_directory(folder);
        std::ofstream(folder / "arbor-trust.json", std::ios::binary) << document;
        return folder / "arbor-trust.json";
    }

    static ZFileDescriptor Open(const fs::path& file) {
        return ZFileDescriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    }

    struct Found {
        std::string verdict;
        std::string payload;
        std::string sentence;
    };
    static Found Judge(const fs::path& path, const ZTrustQuestion& question, const ZTrustedSigners& trusted) {
        const ZFileDescriptor file = Open(path);
        auto package = ZPackage::Read(file.Get());
        const ZFileDescriptor signature = Open(path.string() + ".sig");
        if (!package && package.error().code == ZVerdictCode::NotPackage && signature) {
            package = ZPackage::ReadDetached(file.Get(), signature.Get());
        }
        if (!package) {
            return {ToText(package.error().code), "", package.error().sentence};
        }
        const ZVerdict verdict = trusted.Judge(*package, question);
        const bool hasOwnPayload = package->format == 2 && !package->isDetached;
        const std::string payload = !hasOwnPayload ? "" : package->CheckPayload(file.Get()).IsGood() ? "good" : "bad";
        return {ToText(verdict.code), payload, verdict.sentence};
    }

    static inline fs::path s_folder;
    static inline json::value s_expected;
};

TEST_F(Corpus, IsJudgedAsTheBuildersReaderJudgesIt) {
    std::map<std::pair<std::string, std::string>, ZTrustedSigners> signers;
    ASSERT_GT(s_expected.as_array().size(), 500U);
    for (const json::value& row : s_expected.as_array()) {
        const std::pair folders(Text(row, "trust", "trust"), Text(row, "state"));
        if (!signers.contains(folders)) {
            auto trusted = Load(folders.first, folders.second);
            ASSERT_TRUE(trusted) << trusted.error().text;
            signers.emplace(folders, std::move(*trusted));
        }
        const std::string name = Text(row, "file");
        const json::value* const development = row.as_object().if_contains("development");
        const ZTrustQuestion question{.board = Text(row, "board"),
                                      .acceptsDevelopment = development != nullptr && development->as_bool()};
        const Found found = Judge(s_folder / "files" / name, question, signers.at(folders));
        EXPECT_EQ(Text(row, "verdict"), found.verdict) << name << ": " << found.sentence;
        EXPECT_EQ(Text(row, "payload"), found.payload) << name;
        EXPECT_NE("", found.sentence) << name;
    }
}

TEST_F(Corpus, IsJudgedAlikeByTheClient) {
    std::set<std::string> some{
        "2-trusted",     "under-state-newer", "under-by-developer", "under-by-developer-accepted",
        "under-two-one", "under-right-board", "under-wrong-board"};
    for (const json::value& row : s_expected.as_array()) {
        if (some.erase(Text(row, "file")) == 0) {
            continue;
        }
        const std::string board = Text(row, "board");
        const std::string state = Text(row, "state");
        const std::string command = "cd " + s_folder.string() + "; " ARBORCTL " verify --json files/" +
                                    Text(row, "file") + " --trust " + Text(row, "trust", "trust") +
                                    (state.empty() ? "" : " --state " + state) +
                                    (board.empty() ? "" : " --board " + board) +
                                    (row.as_object().contains("development") ? " --development" : "") + " > said";
        const int status = std::system(command.c_str());
        const std::string verdict = Text(json::parse(Content("said")), "verdict");
        EXPECT_EQ(Text(row, "verdict"), verdict) << command;
        EXPECT_EQ(verdict == "good" ? 0 : 1, WEXITSTATUS(status)) << command;
    }
    EXPECT_THAT(some, testing::IsEmpty());
}

TEST_F(Corpus, ItsChainsLeadWhereTheBuildersReaderIsLed) {
    const auto rows = json::parse(Content("chains.json")).as_array();
    ASSERT_GT(rows.size(), 300U);
    for (const json::value& row : rows) {
        const std::string current = Text(row, "current");
        const auto before = ZTrustChain::Parse(current.empty() ? "" : Content(current));
        const ZTrustDocument* const inForce = before ? &before->Last() : nullptr;
        ASSERT_EQ(current.empty(), inForce == nullptr) << current;
        std::int64_t number = inForce != nullptr ? inForce->number : 0;
        std::string result = "damaged";
        const auto chain = ZTrustChain::Parse(Content(Text(row, "chain")));
        std::string why = chain ? "" : chain.error().text;
        if (chain) {
            const auto isNew = chain->ContinuesFrom(inForce);
            result = !isNew ? "refused" : *isNew ? "followed" : "nothingNew";
            number = isNew ? chain->Last().number : number;
            why = isNew ? "" : isNew.error().text;
        }
        EXPECT_EQ(Text(row, "result"), result) << Text(row, "chain") << ": " << why;
        EXPECT_EQ(row.at("number").as_int64(), number) << Text(row, "chain");
    }
}

/// What an instrument does that keeps what a package brought.
TEST_F(Corpus, AChainThatAPackageCarriesIsKeptAndHoldsFromThenOn) {
    auto signers = Load("trust-5");
    ASSERT_TRUE(signers);
    const auto package = ZPackage::Read(Open(s_folder / "files" / "under-carries-two-on").Get());
    ASSERT_TRUE(package);
    const auto chain = ZTrustChain::Parse(package->trust);
    ASSERT_TRUE(chain);
    const auto followed = signers->Follow(*chain);
    ASSERT_TRUE(followed && *followed);
    EXPECT_EQ(7U, (*followed)->signers.Document()->number);
    EXPECT_EQ(5U, signers->Document()->number);
    const std::string kept = FolderWith((*followed)->text).parent_path().filename();
    const auto again = Load("trust-5", kept);
    ASSERT_TRUE(again);
    EXPECT_EQ(7U, again->Document()->number);
    const auto second = again->Follow(*chain);
    ASSERT_TRUE(second);
    EXPECT_FALSE(*second);
    const auto none = Load("trust")->Follow(*chain);
    ASSERT_FALSE(none);
    EXPECT_THAT(none.error().text, testing::HasSubstr("the first one comes with the system"));
}

TEST_F(Corpus, NobodyIsTrustedWhereATrustDocumentIsNotAsItMustBe) {
    const std::string good = Content("trust-5/arbor-trust.json");
    const std::vector<std::pair<const char*, std::function<void(const fs::path&)>>> faults{
        {"a link", [](const auto& file) { fs::create_symlink(s_folder / "trust-5" / "arbor-trust.json", file); }},
        {"a link to nowhere", [](const auto& file) { fs::create_symlink("nowhere", file); }},
        {"a pipe that nobody writes", [](const auto& file) { ASSERT_EQ(0, ::mkfifo(file.c_str(), 0600)); }},
        {"a folder", [](const auto& file) { fs::create_directory(file); }},
        {"empty", [](const auto& file) { std::ofstream{file}; }},
        {"too large", [](const auto& file) { fs::copy(s_folder / "documents" / "shape-too-long.json", file); }},
        {"huge",
         [&](const auto& file) { std::ofstream(file) << good, fs::resize_file(file, std::uintmax_t{1} << 30); }},
        {"cut", [&](const auto& file) { std::ofstream(file) << good.substr(0, good.size() / 2); }},
        {"not signed", [](const auto& file) { fs::copy(s_folder / "documents" / "chain-unsigned.json", file); }},
        {"signed by one",
         [](const auto& file) { fs::copy(s_folder / "documents" / "chain-one-signature.json", file); }}};
    for (const auto& [name, make] : faults) {
        const fs::path file = FolderWith("");
        fs::remove(file);
        fs::copy(s_folder / "trust" / "release.pem", file.parent_path());
        ASSERT_TRUE(Load("tried")) << name;
        ASSERT_TRUE(Load("trust-5", "tried")) << name;
        make(file);
        for (const auto& signers : {Load("tried"), Load("trust-5", "tried"), Load("tried", "trust-5")}) {
            ASSERT_FALSE(signers) << name;
            EXPECT_THAT(signers.error().text, testing::HasSubstr(file.string())) << name;
        }
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
        EXPECT_FALSE(Load(folder)) << folder;
    }
}

}  // namespace
