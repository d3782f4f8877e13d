#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <tuple>

#include "Conversation.h"

namespace {

using testing::HasSubstr;
namespace json = boost::json;

std::unique_ptr<Program> RunProgram(const ScriptedGateway& gateway, const std::string& line,
                                    const std::string& input = "") {
    auto program = std::make_unique<Program>(gateway.Folder(), "--socket " + gateway.Socket() + " " + line, input);
    program->Status();
    return program;
}

/// A command, the message that the device gets on which path, what it answers, and how the program then ends.
struct AnswerCase {
    const char* line;
    const char* path;
    const char* message;  // kAny: nothing is said about it
    int httpStatus;
    const char* body;
    int status;
    const char* output;
    const char* errors;
};

constexpr const char* kStatus = R"({"version": "3.044", "hash": "58", "installedVersion": null, "device": {"model":
    "Kite\u001b[2J"}, "updates": [{"version": "3.046"}, {"version": "3.045"}], "progress": null, "drives": null})";
constexpr const char* kUpdates = R"({"messages": [{"version": "3.046", "versionType": "System"},
    {"version": "3.045.1", "versionType": "System"}]})";
constexpr const char* kProblem = R"({"title": "Bad", "detail": "a\nb", "field": "x"})";
constexpr const char* kNoAnswer = nullptr;
constexpr const char* kAny = nullptr;
constexpr const char* kYes = R"({"bSuccess": true})";

// clang-format off
constexpr AnswerCase kAnswers[]{
    {"status", "status", kAny, 200, kStatus, 0, "Available updates   3.046, 3.045\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "Device              Kite\\x1b[2J\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "Installed version   unknown\n", ""},
    {"updates", "findupdates", "{}", 200, kUpdates, 0, "VERSION  TYPE\n3.046    System\n3.045.1  System\n", ""},
    {"updates", "findupdates", "{}", 200, R"({"messages": []})", 0, "No updates available.\n", ""},
    {"updates", "findupdates", "{}", 400, kProblem, 1, "", "Bad: a\\nb (HTTP 400, field \"x\")"},
    {"updates", "findupdates", "{}", 504, "gone", 1, "", "HTTP 504"},
    {"updates", "findupdates", "{}", 200, "<html>", 3, "", "not JSON"},
    {"updates --timeout 0.3", "findupdates", kAny, 200, kNoAnswer, 3, "", "in time"},
    {"compare 1 2", "compareversions", R"({"version1": "1", "version2": "2"})", 200, R"({"result": false})", 0, "1 < 2\n", ""},
    {"compare 2 1", "compareversions", R"({"version1": "2", "version2": "1"})", 200, R"({"result": true})", 0, "2 >= 1\n", ""},
    {"check 1 --board b --model QMB", "checkCompatibility", R"({"version": "1", "board": "b", "model": "QMB"})",
     200, R"({"compatible": true})", 0, "Compatible       yes", ""},
    {"check 9 --board b", "checkCompatibility", R"({"version": "9", "board": "b"})",
     200, R"({"compatible": false})", 1, "Compatible       no", ""},
    {"send newFile -", "newFile", R"({"from": "input"})", 202, "", 0, "accepted\n", ""},
    {"send upload @in", "upload", R"({"from": "input"})", 200, R"({"bSuccess": false})", 1, "\"bSuccess\": false", ""},
    {"send nope", "other", kAny, 200, "{}", 1, "", "unknown (HTTP 404)"},
    {"install 9", "updatesystem", R"({"version": "9", "progressHost": "", "reboot": true})",
     200, R"({"bSuccess": false, "ErrCode": "ERRCODE_NONE"})", 1, "", "Installing 9: the device has no package"},
    {"install 9 --no-reboot --progress-host h", "updatesystem", R"({"version": "9", "progressHost": "h", "reboot": false})",
     200, kYes, 0, "Installing 9: started", ""},
    {"transfer 9 --to 4 --model QMA", "transfer", R"({"version": "9", "serialNumber": "4", "deviceModel": "QMA"})",
     200, R"({"bSuccess": false, "text": "no such version"})", 1, "", "no such version"},
    {"remote-install --to 4 --version 3", "remoteinstall", R"({"serialNumber": "4", "version": "3"})",
     200, R"({"messages": [{"bSuccess": false}]})", 1, "", "accessory was not found"},
    {"log -n 2", "log", kAny, 200, R"({"lines": ["one", "two\u0007"]})", 0, "one\ntwo\\x07\n", ""},
};
// clang-format on

TEST(Commands, ShowTheDevicesAnswerToPeopleAndToPrograms) {
    for (const auto& item : kAnswers) {
        ScriptedGateway gateway;
        const bool silent = item.body == kNoAnswer;
        const std::string path = std::string("/v1/") + item.path;
        gateway.Script(path, {item.httpStatus, silent ? "" : item.body, silent});
        const auto shown = RunProgram(gateway, item.line, R"({"from": "input"})");
        EXPECT_EQ(shown->Status(), item.status) << item.line;
        EXPECT_THAT(shown->Output(), HasSubstr(item.output));
        EXPECT_THAT(shown->Errors(), HasSubstr(item.errors));
        if (item.message != kAny) {
            EXPECT_EQ(gateway.Messages(path, 1).front(), json::parse(item.message));
        }

        const auto program = RunProgram(gateway, std::string(item.line) + " --json", R"({"from": "input"})");
        EXPECT_EQ(program->Status(), item.status) << item.line;
        std::istringstream documents(program->Output());
        std::size_t count = 0;
        for (std::string text; std::getline(documents, text); ++count) {
            EXPECT_TRUE(json::parse(text).is_object()) << text;
        }
        EXPECT_EQ(count, std::string(item.path) == "log" ? 2U : 1U) << item.line;
    }
}

TEST(Commands, TellBadUsageFromADeviceThatCannotBeReachedAndNameWhatIsWrong) {
    const ScriptedGateway gateway;
    setenv("ARBORCTL_SOCKET", "/nowhere/env.sock", 1);
    const std::tuple<std::string, int, const char*> cases[]{
        {"", 2, "Examples:"},
        {"instal 1", 2, "instal"},
        {"install", 2, "VERSION"},
        {"log -n 0", 2, "0"},
        {"--timeout never status", 2, "never"},
        {"send a '{\"x\":}'", 2, "byte 5"},
        {"send a [1]", 2, "object"},
        {"send ../status {}", 2, "../status"},
        {"send a @/nowhere/file", 2, "/nowhere/file"},
        {"upload /nowhere/file", 2, "/nowhere/file: No such file"},
        {"upload /", 2, "/: Is a directory"},
        {"scan /nowhere/a.pkg", 2, "/nowhere/a.pkg: No such file"},
        {"status", 3, "/nowhere/env.sock: No such file or directory"},
        {"watch --socket /" + std::string(200, 'x'), 3, "longer than 107"},
        {"install 1 --wait --socket " + gateway.Folder() + "/in", 3, "Connection refused"},
    };
    for (const auto& [line, status, complaint] : cases) {
        Program program(gateway.Folder(), line);
        EXPECT_EQ(program.Status(), status) << line;
        EXPECT_THAT(program.Errors(), HasSubstr(complaint));
    }
    unsetenv("ARBORCTL_SOCKET");
}

/// The bytes of one write message.
std::string Decoded(const json::value& message) {
    const std::string text(message.at("data").as_string());
    std::string bytes(text.size(), '\0');
    const int size =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    return bytes.substr(0, static_cast<std::size_t>(size - std::count(text.begin(), text.end(), '=')));
}

TEST(Upload, CarriesEveryByteAndClosesNothingThatWasRefused) {
    for (const std::size_t size : {0U, 1U, 776700U, 2U * 776700U + 2U}) {
        std::string bytes(size, '\0');
        std::generate(bytes.begin(), bytes.end(), [i = 0]() mutable { return static_cast<char>(++i * 7 % 251); });
        ScriptedGateway gateway;
        std::ofstream(gateway.Folder() + "/a.pkg", std::ios::binary) << bytes;
        gateway.Script("/v1/upload", {200, R"({"bSuccess": false, "text": "disk full"})"});
        const auto refused = RunProgram(gateway, "upload a.pkg");
        EXPECT_EQ(refused->Status(), 1);
        EXPECT_THAT(refused->Errors(), HasSubstr("a.pkg: open refused: disk full"));
        ASSERT_EQ(gateway.Messages("/v1/upload", 1).size(), 1U) << "what is not closed is thrown away";

        gateway.Script("/v1/upload", {200, kYes});
        EXPECT_EQ(RunProgram(gateway, "upload a.pkg")->Status(), 0);
        auto messages = gateway.Messages("/v1/upload", 3);
        messages.erase(messages.begin());
        EXPECT_EQ(messages.front(), json::parse(R"({"className": "ZFileOpenMsg", "mode": 493, "filePath": "a.pkg"})"));
        EXPECT_EQ(messages.back(), json::parse(R"({"className": "ZFileCloseMsg", "filePath": "a.pkg"})"));
        std::string received;
        std::for_each(messages.begin() + 1, messages.end() - 1, [&](const auto& write) { received += Decoded(write); });
        EXPECT_TRUE(received == bytes) << size;
    }
}

}  // namespace
