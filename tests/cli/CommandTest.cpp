#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <tuple>
#include <utility>

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
    "Kite\u001b[2J"}, "updates": [{"version": "3.046", "relation": "newer", "source": "/media/usb1"}], "drives": null,
    "operations": [{"id": "1f3a9c0200000000", "kind": "Install", "state": "Running", "version": "3.046", "header":
    "Install", "message": "Write", "percent": 44, "asker": "user alice"}, {"id": "22", "kind": "Check", "state":
    "Queued", "file": "/media/usb1/b.pkg"}], "runningSlot": "A", "nextSlot": "B", "nextVersion": "3.046",
    "refused": [{"file": "/x.pkg", "reason": "too old"}], "archive": [], "updatesFree": 1610612736})";
constexpr const char* kSettled = R"({"installedVersion": "3.046", "runningSlot": "B", "nextSlot": "B", "nextVersion":
    "3.046", "operations": null, "updateInProgress": false, "updates": []})";
constexpr const char* kInventory = R"({"packages": [{"version": "3.046", "relation": "newer", "size": 1572864,
    "source": "upload", "file": "/up/a.pkg"}, {"version": "3.045.1", "file": "/media/usb1/b.pkg", "source":
    "/media/usb1"}], "archive": [{"version": "3.044", "size": 5, "file": "/p/c.pkg", "source": "archive"}],
    "refused": [{"file": "/media/usb1/\u001b.pkg", "version": "3.1", "reason": "it is older",
    "errorCode": "ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED"}]})";
constexpr const char* kJob = R"({"id": "1f3a9c0200000000", "kind": "RemoteInstall", "state": "Failed", "version": "3.1",
    "device": "4", "asker": "user alice", "node": "ArborInstall", "reason": "no power", "errorCode": "ERRCODE_NONE",
    "createdAt": 86400000, "startedAt": 86400000, "endedAt": 1, "took": 125000})";
constexpr const char* kJobs = R"({"operations": [{"id": "1f3a9c0200000000", "kind": "RemoteInstall", "state": "Failed",
    "version": "3.1", "device": "4", "reason": "no power", "startedAt": 1000, "endedAt": 99999999999, "took": 500},
    {"id": "2b", "kind": "Check", "state": "Running", "file": "/a.pkg", "percent": 7, "asker": "drive /d"}]})";
constexpr const char* kOrders = R"({"orders": [
    {"user": "mallory", "program": "curl\u001b", "processId": 77, "keyword": "newFile", "subject": "/tmp evil.pkg",
     "accepted": false, "reason": "it is not for people", "count": 1},
    {"user": "alice", "program": "arborctl", "keyword": "updatesystem", "subject": "3.046 reboot", "accepted": true,
     "operationId": "1f3a9c0200000000"}, {"user": "mallory", "accepted": false, "reason": "more", "count": 40}]})";
constexpr const char* kForbidden = R"({"title": "Forbidden", "status": 403, "detail":
    "you (user bob) are not in the group arbor-service, which may install"})";
constexpr const char* kNobody = R"({"title": "Service Unavailable", "detail": "No node of this graph serves it"})";
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
    {"status", "status", kAny, 200, kStatus, 0, "Device         Kite\\x1b[2J\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "Runs           unknown (slot A)\nStarts next    3.046 (slot B)\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "Under way      install 3.046: Install: Write, 44 %, asked by user alice (1f3a9c02)\n"
        "               check /media/usb1/b.pkg: waits (22)\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "Updates        3.046 (newer, /media/usb1)\nRefused        /x.pkg: too old\n"
        "Archive        empty\nFree           1.5 GiB for uploads, unknown in the archive\n", ""},
    {"status", "status", kAny, 200, kStatus, 0, "arbord         3.044 (58)\n", ""},
    {"status", "status", kAny, 200, kSettled, 0, "Runs           3.046 (slot B)\nUnder way      no install\nUpdates        none\n", ""},
    {"updates", "inventory", "{}", 200, kInventory, 0, "VERSION  RELATION  SIZE     SOURCE       FILE\n"
        "3.046    newer     1.5 MiB  upload       a.pkg\n3.045.1  unknown   unknown  /media/usb1  b.pkg\n", ""},
    {"updates", "inventory", "{}", 200, kInventory, 0, "In the archive:\n", ""},
    {"updates", "inventory", "{}", 200, kInventory, 0, "Refused:\n  /media/usb1/\\x1b.pkg (3.1): it is older\n    bring a newer", ""},
    {"updates", "inventory", "{}", 200, R"({"packages": []})", 0, "No updates available.\n", ""},
    {"updates", "inventory", "{}", 400, kProblem, 1, "", "Bad: a\\nb (HTTP 400, field \"x\")"},
    {"updates", "inventory", "{}", 503, kNobody, 1, "", "this device has no update node (NodeArborInstall) in its graph"},
    {"updates", "inventory", "{}", 504, "gone", 1, "", "HTTP 504): the node that serves it is busy or hangs"},
    {"updates", "inventory", "{}", 200, "<html>", 3, "", "not JSON"},
    {"updates --timeout 3", "inventory", kAny, 200, kNoAnswer, 3, "", "in time"},
    {"history", "operations", kAny, 200, kJobs, 0, "1f3a9c02  -     remote-install  3.1 on 4  the device  failed       0.5 s  no power\n"
        "2b        -     check           /a.pkg    drive /d    running 7 %\n", ""},
    {"history --kind remote-install --since 2h --state failed", "operations", kAny, 200, R"({"operations": []})", 0, "No jobs.\n", ""},
    {"history", "operations", kAny, 503, kNobody, 1, "", "this device has no journal (NodeJournal) in its graph"},
    {"orders", "orders", kAny, 200, kOrders, 0, "mallory  curl\\x1b (77)  newFile       /tmp evil.pkg  refused: it is not for people\n", ""},
    {"orders", "orders", kAny, 200, kOrders, 0, "alice    arborctl       updatesystem  3.046 reboot   accepted, job 1f3a9c02\n", ""},
    {"orders", "orders", kAny, 200, kOrders, 0, "several                      refused: more (40 times, the last at ", ""},
    {"orders -n 2 --result refused --user 'a&b' --since 2h", "orders", kAny, 200, R"({"orders": []})", 0, "No orders.\n", ""},
    {"orders", "orders", kAny, 503, kNobody, 1, "", "this device has no journal (NodeJournal) in its graph"},
    {"install 9", "updatesystem", kAny, 403, kForbidden, 1, "",
     "Forbidden: you (user bob) are not in the group arbor-service, which may install (HTTP 403)"},
    {"status", "status", kAny, 200, R"({"developerMode": true})", 0, "Warning        developerMode is on", ""},
    {"show 1f3a", "operations/1f3a", kAny, 200, kJob, 0, "State       failed\nReason      no power\nVersion     3.1\nAccessory   4\nAsked by    user alice\n", ""},
    {"show 1f3a", "operations/1f3a", kAny, 200, kJob, 0, "Took        2 min 5 s\nDone by     ArborInstall\n", ""},
    {"show 1f3a", "operations/1f3a", kAny, 409, kProblem, 1, "", "HTTP 409"},
    {"forget a.pkg", "forget", R"({"file": "a.pkg"})", 200, kYes, 0, "a.pkg: removed\n", ""},
    {"trust show", "trust", kAny, 200, R"({"trustedSigners": "/t", "number": 3, "securityFloor": 2, "trustThreshold": 2, "releaseThreshold": 1,
      "developmentThreshold": 1, "keys": [{"id": "0123456789abcdef00", "name": "A\u001b", "roles": ["trust", "release"], "boards": ["b1"]}],
      "revoked": ["ff"]})", 0, "0123456789abcdef  A\\x1b: trust, release; b1\nRevoked            ff\n", ""},
    {"trust show", "trust", kAny, 200, R"({"trustedSigners": "", "number": 0})", 0, "off: everybody's packages run\n", ""},
    {"forget a.pkg", "forget", kAny, 200, R"({"bSuccess": false, "text": "no such upload"})", 1, "", "a.pkg: not removed: no such upload"},
    {"compare 1 2", "compareversions", R"({"version1": "1", "version2": "2"})", 200, R"({"result": false})", 0, "1 < 2\n", ""},
    {"compare 2 1", "compareversions", R"({"version1": "2", "version2": "1"})", 200, R"({"result": true})", 0, "2 >= 1\n", ""},
    {"check 1 --board b --model QMB", "checkCompatibility", R"({"version": "1", "board": "b", "model": "QMB"})",
     200, R"({"compatible": true})", 0, "Compatible       yes", ""},
    {"check 9 --board b", "checkCompatibility", R"({"version": "9", "board": "b"})",
     200, R"({"compatible": false})", 1, "Compatible       no", ""},
    {"send cancel -", "cancel", R"({"from": "input"})", 202, "", 0, "accepted\n", ""},
    {"send upload @in", "upload", R"({"from": "input"})", 200, R"({"a\u007f": 1, "bSuccess": false})", 1, "\"a\\x7f\": 1,\n  \"bSuccess\": false", ""},
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
    {"peers", "peers", "{}", 503, kNobody, 1, "", "this device has no link node (NodePeer) in its graph"},
    {"pair", "peers", "{}", 200, kPeers, 0, "key:\n  ef\n\nPinned:\n  " PALM_KEY "  palm\n", ""},
    {"pair", "peers", "{}", 200, kPeers, 0, "let it in:\n  arborctl pair " STRANGER " --name NAME\n", ""},
    {"pair", "peers", "{}", 200, R"({"publicKey": "ef"})", 0, "on the other device:\n  arborctl pair ef --name", ""},
    {"pair $(echo " PALM_KEY " | tr a-f A-F) --name p --address tcp://h:1", "pair",
     R"({"publicKey": ")" PALM_KEY R"(", "name": "p", "address": "tcp://h:1", "remove": false})", 200, kPeers, 0, "pinned as palm\n", ""},
    {"pair " STRANGER " --remove", "pair", R"({"publicKey": ")" STRANGER R"(", "name": "", "address": "", "remove": true})",
     200, kPeers, 0, STRANGER ": no longer pinned\n", ""},
    {"pair " STRANGER " --remove", "pair", kAny, 200, R"({"bSuccess": false, "text": "not here"})", 1, "", "not removed: not here"},
    {"log -n 2 --level error", "log", kAny, 200, R"({"entries": [{"time": 5, "level": 4, "channel": "N", "text": "two\u0007"},
        {"level": 99}]})", 0, ".005 error   N: two\\x07\n", ""},
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
    ScriptedGateway gateway;
    gateway.Script("/v1/openapi.json",
                   {200, R"({"paths":{"/v1/a":{"post":{}},"/v1/status":{"get":{}},"/v1/b":{"post":{}}}})", false});
    EXPECT_EQ(RunProgram(gateway, "send --list --json", "")->Output(), "{\"keywords\":[\"a\",\"b\"]}\n");
}

TEST(Commands, TellBadUsageFromADeviceThatCannotBeReachedAndNameWhatIsWrong) {
    const ScriptedGateway gateway;
    setenv("ARBORCTL_SOCKET", "/nowhere/env.sock", 1);
    const std::tuple<std::string, int, const char*> cases[]{
        {"", 2, "Examples:"},
        {"instal 1", 2, "no command \"instal\"; did you mean \"install\"?"},
        {"qwertz", 2, "--help lists them"},
        {"install \"3.046'\"", 2, "VERSION: \"3.046'\" is not a version"},
        {"compare 3.1 def", 2, "B: \"def\" is not"},
        {"compare 3. 1", 2, "A: \"3.\""},
        {"transfer 3.1 --to 'a b'", 2, "--to: \"a b\" is not a name"},
        {"show xyz1", 2, "ID: \"xyz1\""},
        {"history --since 2025-02-30", 2, "--since: \"2025-02-30\" is not a time"},
        {"history --kind instal", 2, "--kind"},
        {"log --level loud", 2, "--level"},
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
        {"scan /dev/null", 2, "/dev/null: not a regular file"},
        {"status", 3, "arbord does not run: systemctl status arbord (no socket at /nowhere/env.sock)"},
        {"watch --socket /" + std::string(200, 'x'), 3, "longer than 107"},
        {"install 1 --wait --socket " + gateway.Folder() + "/in", 3,
         "arbord does not run: systemctl status arbord (nobody listens"},
    };
    for (const auto& [line, status, complaint] : cases) {
        Program program(gateway.Folder(), line);
        EXPECT_EQ(program.Status(), status) << line;
        EXPECT_THAT(program.Errors(), HasSubstr(complaint));
    }
    unsetenv("ARBORCTL_SOCKET");
}

/// What a shell's command line prints, and the exit status of its last program.
std::pair<std::string, int> Shell(const std::string& line) {
    FILE* const output = popen(line.c_str(), "r");
    std::string told(4000, '\0');
    told.resize(fread(told.data(), 1, told.size(), output));
    return {told, WEXITSTATUS(pclose(output))};
}

TEST(Commands, SayWhichGroupMayUseTheSocket) {
    const ScriptedGateway gateway;
    ASSERT_EQ(chmod(gateway.Folder().c_str(), 0755), 0);
    ASSERT_EQ(chmod(gateway.Socket().c_str(), 0), 0);
    const char* const somebody = geteuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "";
    const auto [told, status] = Shell(somebody + std::string(ARBORCTL " status 2>&1 --socket ") + gateway.Socket());
    EXPECT_EQ(status, 3);
    EXPECT_THAT(told, HasSubstr("you are not in the group "));
    EXPECT_THAT(told, HasSubstr("sudo usermod -aG "));
}

TEST(Commands, FailWhenTheirOutputCannotBeWrittenUnlessNobodyWantsIt) {
    ScriptedGateway gateway;
    gateway.Script("/v1/status", {200, kStatus});
    for (const std::string& line : {std::string("--help"), "status --socket " + gateway.Socket()}) {
        const auto [told, status] = Shell(ARBORCTL " " + line + " 2>&1 >/dev/full");
        EXPECT_EQ(status, 2) << line;
        EXPECT_THAT(told, HasSubstr("the output could not be written"));
        EXPECT_EQ(Shell("(" ARBORCTL " " + line + " 2>&1; echo $? >" + gateway.Folder() + "/status) | true").second, 0);
        EXPECT_EQ(ReadAll(gateway.Folder() + "/status"), "0\n") << line;
    }
}

TEST(Upload, IsNotWaitedForWhereNobodyTakesFiles) {
    ScriptedGateway gateway;
    std::ofstream(gateway.Folder() + "/a.pkg") << "x";
    gateway.Script("/v1/upload", {200, "", true});
    const auto program = RunProgram(gateway, "upload a.pkg");
    EXPECT_EQ(program->Status(), 3);
    EXPECT_THAT(program->Errors(), HasSubstr("is there a file node (NodeFileIO) in its graph"));
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
    const std::tuple<const char*, ScriptedGateway::Answer, const char*, int, const char*> cases[]{
        {"transfer 9 --to 4", {200, kPeers}, R"({"version": "9", "serialNumber": "4", "deviceModel": "QMD"})", 0, "started"},
        {"transfer 9 --to 7", {200, kPeers}, R"({"version": "9", "serialNumber": "7"})", 0, "started"},
        {"transfer 9 --to 7", {503, "{}"}, R"({"version": "9", "serialNumber": "7"})", 0, "started"},
        {"transfer 9 --to 5", {200, kPeers}, nullptr, 1, "to 5: cart (KiteQM-5) is not connected"},
        {"transfer 9 --to 5 --model KiteQM", {200, kPeers}, nullptr, 1, "not connected"},
        {"transfer 9 --to 5", {504, kProblem}, nullptr, 1, "HTTP 504"},
        {"remote-install --to 5", {200, kPeers}, R"({"serialNumber": "5", "deviceModel": "KiteQM"})", 0, "started"},
    };
    // clang-format on
    for (const auto& [line, peers, message, status, text] : cases) {
        ScriptedGateway gateway;
        const bool transfer = std::string(line).starts_with("transfer");
        const std::string path = transfer ? "/v1/transfer" : "/v1/remoteinstall";
        gateway.Script("/v1/peers", peers);
        gateway.Script(path, {200, transfer ? kYes : R"({"messages": [{"bSuccess": true}]})"});
        const auto program = RunProgram(gateway, line);
        EXPECT_EQ(program->Status(), status) << line;
        EXPECT_THAT(program->Output() + program->Errors(), HasSubstr(text));
        const auto messages = gateway.Messages(path, message != nullptr ? 1 : 0);
        ASSERT_EQ(messages.size(), message != nullptr ? 1U : 0U) << line;
        EXPECT_TRUE(messages.empty() || messages.front() == json::parse(message)) << line;
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
