#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <tuple>

#include "Conversation.h"
#include "NodeLink/LinkKeys.h"

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

#define PALM_KEY "abababababababababababababababababababababababababababababababab"
#define STRANGER "cdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcdcd"
constexpr const char* kPeers = R"({"bSuccess": true, "publicKey": "ef", "peers": [
    {"name": "palm", "publicKey": ")" PALM_KEY R"(", "pinned": true, "connected": true, "deviceType": "DEVICE_PALM",
     "deviceModel": "QMD", "serialNumber": "4", "board": "b\u001b", "version": "3.044"},
    {"name": "cart", "publicKey": "12", "pinned": true, "deviceType": "DEVICE_CART", "deviceModel": "KiteQM",
     "serialNumber": "5", "targetVersion": "3.1", "compatible": true, "requiresUpdate": true},
    {"name": "old", "pinned": true, "deviceType": "DEVICE_CART", "serialNumber": "6", "targetVersion": "3"},
    {"name": "new", "publicKey": "34", "pinned": true, "deviceModel": "KiteQM"}, {"publicKey": ")" STRANGER R"("}]})";

// clang-format off
constexpr AnswerCase kAnswers[]{
    {"send --list", "openapi.json", kAny, 200, R"({"paths": {"/v1/status": {"get": {}}, "/v1/upload": {"post": {}},
        "/v1/peers": {"post": {}}}})", 0, "upload\npeers\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "Available updates   3.046, 3.045\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "Device              Kite\\x1b[2J\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "Installed version   unknown\n", ""},
    {"updates", "findupdates", "{}", 200, kUpdates, 0, "VERSION  TYPE\n3.046    System\n3.045.1  System\n", ""},
    {"updates", "findupdates", "{}", 200, R"({"messages": []})", 0, "No updates available.\n", ""},
    {"updates", "findupdates", "{}", 400, kProblem, 1, "", "Bad: a\\nb (HTTP 400, field \"x\")"},
    {"updates", "findupdates", "{}", 504, "gone", 1, "", "HTTP 504"},
    {"updates", "findupdates", "{}", 200, "<html>", 3, "", "not JSON"},
    {"updates --timeout 3", "findupdates", kAny, 200, kNoAnswer, 3, "", "in time"},
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
    {"peers", "peers", "{}", 200, kPeers, 0, "palm  QMD     4       accessory  b\\x1b  3.044    connected\n", ""},
    {"peers", "peers", "{}", 200, kPeers, 0, "cart  KiteQM  5       host       -      -        away        needs 3.1\n", ""},
    {"peers", "peers", "{}", 200, kPeers, 0, "away        host too old\nnew   -       -       -          -      -        never seen\n", ""},
    {"peers", "peers", "{}", 200, kPeers, 0, "\n\nTurned away because their key is not pinned:\n  " STRANGER "\n", ""},
    {"peers", "peers", "{}", 503, kProblem, 1, "", "HTTP 503"},
    {"pair", "peers", "{}", 200, kPeers, 0, "key:\n  ef\n\nPinned:\n  " PALM_KEY "  palm\n", ""},
    {"pair", "peers", "{}", 200, kPeers, 0, "let it in:\n  arborctl pair " STRANGER " --name NAME\n", ""},
    {"pair", "peers", "{}", 200, R"({"publicKey": "ef"})", 0, "on the other device:\n  arborctl pair ef --name", ""},
    {"pair $(echo " PALM_KEY " | tr a-f A-F) --name p --address tcp://h:1", "pair",
     R"({"publicKey": ")" PALM_KEY R"(", "name": "p", "address": "tcp://h:1", "remove": false})", 200, kPeers, 0, "pinned as palm\n", ""},
    {"pair " STRANGER " --remove", "pair", R"({"publicKey": ")" STRANGER R"(", "name": "", "address": "", "remove": true})",
     200, kPeers, 0, STRANGER ": no longer pinned\n", ""},
    {"pair " STRANGER " --remove", "pair", kAny, 200, R"({"bSuccess": false, "text": "not here"})", 1, "", "not removed: not here"},
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
        {"upload in", 2, "does not end in .pkg (--no-check)"},
        {"pair abc", 2, "abc: a key is 64"},
        {"pair --remove", 2, "KEY"},
        {"pair " PALM_KEY " --remove --name a", 2, "--name"},
        {"keygen /nowhere/keys", 2, "/nowhere/keys: No such file"},
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
        const auto refused = RunProgram(gateway, "upload a.pkg --no-check");
        EXPECT_EQ(refused->Status(), 1);
        EXPECT_THAT(refused->Errors(), HasSubstr("a.pkg: open refused: disk full"));
        ASSERT_EQ(gateway.Messages("/v1/upload", 1).size(), 1U) << "what is not closed is thrown away";

        gateway.Script("/v1/upload", {200, kYes});
        EXPECT_EQ(RunProgram(gateway, "upload a.pkg --no-check")->Status(), 0);
        auto messages = gateway.Messages("/v1/upload", 3);
        messages.erase(messages.begin());
        const json::object open{{"className", "ZFileOpenMsg"}, {"mode", 493}, {"size", size}, {"filePath", "a.pkg"}};
        EXPECT_EQ(messages.front(), json::parse(json::serialize(open)));
        EXPECT_EQ(messages.back(), json::parse(R"({"className": "ZFileCloseMsg", "filePath": "a.pkg"})"));
        std::string received;
        std::for_each(messages.begin() + 1, messages.end() - 1, [&](const auto& write) {
            EXPECT_EQ(write.at("position").as_int64(), static_cast<std::int64_t>(received.size()));
            received += Decoded(write);
        });
        EXPECT_TRUE(received == bytes) << size;
    }
}

TEST(Accessory, IsKnownByItsSerialNumberWhereTheDeviceHasALink) {
    // clang-format off
    const struct { const char* line; ScriptedGateway::Answer peers; const char* message; int status; const char* text; } cases[]{
        {"transfer 9 --to 4", {200, kPeers}, R"({"version": "9", "serialNumber": "4", "deviceModel": "QMD"})", 0, "started"},
        {"transfer 9 --to 7", {200, kPeers}, R"({"version": "9", "serialNumber": "7"})", 0, "started"},
        {"transfer 9 --to 7", {503, "{}"}, R"({"version": "9", "serialNumber": "7"})", 0, "started"},
        {"transfer 9 --to 5", {200, kPeers}, nullptr, 1, "to 5: cart (KiteQM-5) is not connected"},
        {"transfer 9 --to 5 --model KiteQM", {200, kPeers}, nullptr, 1, "not connected"},
        {"transfer 9 --to 5", {504, kProblem}, nullptr, 1, "HTTP 504"},
        {"remote-install --to 5", {200, kPeers}, R"({"serialNumber": "5", "deviceModel": "KiteQM"})", 0, "started"},
    };
    // clang-format on
    for (const auto& item : cases) {
        ScriptedGateway gateway;
        const bool transfer = std::string(item.line).starts_with("transfer");
        const std::string path = transfer ? "/v1/transfer" : "/v1/remoteinstall";
        gateway.Script("/v1/peers", item.peers);
        gateway.Script(path, {200, transfer ? kYes : R"({"messages": [{"bSuccess": true}]})"});
        const auto program = RunProgram(gateway, item.line);
        EXPECT_EQ(program->Status(), item.status) << item.line;
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(item.text));
        const auto messages = gateway.Messages(path, item.message != nullptr ? 1 : 0);
        ASSERT_EQ(messages.size(), item.message != nullptr ? 1U : 0U) << item.line;
        EXPECT_TRUE(messages.empty() || messages.front() == json::parse(item.message)) << item.line;
    }
}

TEST(Keygen, MakesAPairThatTheDeviceTakesAndOverwritesNothing) {
    const ScriptedGateway gateway;
    const std::string file = gateway.Folder() + "/keys.json";
    const auto made = RunProgram(gateway, "keygen keys.json");
    ASSERT_EQ(made->Status(), 0) << made->Errors();
    const auto keys = LoadOrMakeLinkKeys(file);
    ASSERT_TRUE(keys) << keys.error().text;
    EXPECT_EQ(made->Output(), keys->publicKey + "\n");
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    const std::string before = ReadAll(file);
    const auto again = RunProgram(gateway, "keygen keys.json");
    EXPECT_EQ(again->Status(), 2);
    EXPECT_THAT(again->Errors(), HasSubstr("keys.json: there is such a file already"));
    EXPECT_EQ(ReadAll(file), before);
}

}  // namespace
