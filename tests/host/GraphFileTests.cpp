#include <gmock/gmock.h>

#include <boost/json.hpp>
#include "ArbordProcess.h"

namespace json = boost::json;
using namespace testing;

namespace {

const std::string kLibraries = R"("libraries": [ "libNodeDeviceProps.so", "libNodeStorage.so" ])";
const std::string kGood = R"("nodes": [ { "name": "Props", "class": "ZNodeDeviceProps" } ], )" + kLibraries;

/// What a check of the file says, with the exit status in front.
std::string Check(const std::filesystem::path& file) {
    ArbordProcess arbord({"--graph", file.string(), "--check"});
    const std::string status = std::to_string(arbord.WaitForExit().value_or(-1));
    return status + '\n' + arbord.Output();
}

}  // namespace

TEST(GraphFile, ErrorsNameFileLineAndKey) {
    // "@" stands for the nodes and libraries of a good file, on one line.
    const std::pair<std::string, std::vector<std::string>> cases[]{
        {"", {":1: this is no JSON: incomplete JSON"}},
        {"{\n\n \"core\": ! }", {":3: this is no JSON: "}},
        {"{@}\n{}", {":2: there is more text behind the document's end"}},
        {"[]", {":1: the document is no object"}},
        {"{\n\"core\": {}, @,\n\"core\": {} }", {":3: \"core\" stands here twice"}},
        {"{@,\n\"cores\": {}}", {":2: \"cores\" is no known key here; known are: $schema, comms, core, "}},
        {"{@, \"core\": {\n\"queueLength\": 0,\n\"updatesFolder\": 5 }}",
         {":2: core: \"queueLength\" is 0; it must be a number from 1 to ",
          ":3: core: \"updatesFolder\" is not a text"}},
        {"{@, \"core\": {\n\"updatesFolder\": \"a/b\" }}",
         {":2: core: \"updatesFolder\" is \"a/b\"; it must be an absolute path whose variables are set"}},
        {"{@, \"log\":\n{ \"level\": 5, \"file\": \"$NO_SUCH_THING/x\" }}",
         {":2: log: \"level\" is 5; it must be a number from 0 to 4",
          ":2: log: \"file\" is \"$NO_SUCH_THING/x\"; it must be an absolute path whose variables are set"}},
        {"{@, \"log\": 1, \"comms\": {\n\n\"hostName\": \"\"}}",
         {":1: \"log\" is not an object", ":3: comms: \"hostName\" is no known key here"}},
        {"{@, \"platform\": {\n\"identity\": {\n\"serial\": 1},\n\"mounts\": {\n\"/dev/a\": 7} }}",
         {":3: platform.identity: \"serial\" is no known key", ":5: platform.mounts: \"/dev/a\" is not a text"}},
        {"{ \"libraries\": [\n\"libNoSuch.so\",\n\"./missing.so\", 3], \"nodes\": [] }",
         {":2: libraries[0]: \"libNoSuch.so\" is in none of ", ":3: libraries[1]: \"./missing.so\" can't be loaded: ",
          ":3: libraries[2]: is not a library's name or path", ":3: \"nodes\" names no node"}},
        {"{ \"nodes\": [ 1,\n{ \"name\": \"\" },\n{ \"name\": \"a\", \"class\": \"A\" },\n{ \"name\": \"a\", "
         "\"class\": "
         "\"A\",\n\"config\": [] } ] }",
         {":1: nodes[0]: is not an object", ":2: nodes[1]: \"name\" is not a text",
          ":2: nodes[1]: \"class\" is missing", ":4: nodes[3]: a second node is named \"a\"",
          ":5: nodes[3]: \"config\" is not an object"}},
        {"{ " + kLibraries +
             ", \"nodes\": [\n{ \"name\": \"a\", \"class\": \"ZMessage\" },\n{ \"name\": \"b\",\n"
             "\"configClass\": \"ZNothing\", \"class\": \"ZNodeStorage\", \"config\": {} },\n{ \"name\": \"c\", "
             "\"class\": "
             "\"ZNodeStorage\", \"config\":\n{ \"root\": [],\n\"excludedRoots\": \"x\" } } ] }",
         {":2: nodes[0]: \"ZMessage\" is not the name of a node class",
          ":4: nodes[1]: \"ZNothing\" is not the name of a record class",
          ":6: nodes[2].config: \"root\" is no known key here; known are: excludedRoots, removableRoots, roots",
          ":7: nodes[2].config: \"excludedRoots\" is not a list of texts"}},
    };
    const TemporaryFolder folder;
    EXPECT_THAT(Check(folder / "none.json"), HasSubstr("none.json: could not be read: No such file"));
    for (const auto& [text, errors] : cases) {
        std::string content = text;
        if (const std::size_t at = content.find('@'); at != std::string::npos) {
            content.replace(at, 1, kGood);
        }
        const auto file = folder.Write("graph.json", content);
        const std::string output = Check(file);
        EXPECT_THAT(output, StartsWith("1\n")) << content;
        for (const std::string& error : errors) {
            EXPECT_THAT(output, HasSubstr(file.string() + error)) << content;
        }
    }
}

TEST(GraphFile, ErrorsAreToldAllAtOnce) {
    const TemporaryFolder folder;
    const auto file = folder.Write("graph.json", R"({
"core": { "updatesFolder": "/usr",
  "requestTimeoutSeconds": 0, "unknown": 1 },
"log": { "file": "logs/arbord.log",
  "level": "high" },
"platform": { "commandTimeoutSeconds": -1 },
"libraries": [ "libNodeArborInstall.so", "libNodeStorage.so", "libNodeFileIO.so", "libNodeGateway.so",
  "libNodePeer.so", "libNoSuch.so" ],
"nodes": [
  { "name": "Update", "class": "ZNodeArborInstall",
    "required": false,
    "config": {
      "ArchiveDir": "../x",
      "ProgressPath": "/etc/passwd", "ProgressPort": 70000 } },
  { "name": "Files", "class": "ZNodeFileIO", "config": { "idleSeconds": 0, "maxOpenFiles": 257,
      "roots": [ "/srv/a", "b", "/var/lib/dpkg" ] } },
  { "name": "Gateway", "class": "ZNodeGateway", "config": { "socketPath": "gateway.sock",
      "socketMode": "0999" } },
  { "name": "Link", "class": "ZNodePeer", "config": { "keyFile": "/k", "pinsFile": "/p",
      "listen": "nonsense" } },
  { "name": "Storage", "class": "ZNodeStorage", "config": { "excludedRoots": [ "media/own" ] } } ] })");
    const std::string output = Check(file);
    EXPECT_THAT(output, StartsWith("1\n"));
    for (const char* error :
         {":2: core: \"updatesFolder\" is \"/usr\"; it must be a folder of its own",
          ":3: core: \"requestTimeoutSeconds\" is 0; it must be a number from 1 to 3600", ":3: core: \"unknown\" is no",
          ":4: log: \"file\" is \"logs/arbord.log\"; it must be an absolute path", ":5: log: \"level\" is not a whole",
          ":6: platform: \"commandTimeoutSeconds\" is not a whole number", ":8: libraries[5]: \"libNoSuch.so\" is in",
          ":11: nodes[0]: \"required\" is false; without a ZNodeArborInstall nothing is updated",
          ":13: nodes[0].config: \"ArchiveDir\" is \"../x\"; it must be a folder below the device's mount point",
          ":14: nodes[0].config: \"ProgressPath\" is \"/etc/passwd\"; it must be a file's name",
          ":14: nodes[0].config: \"ProgressPort\" is ",
          ":15: nodes[1].config: \"idleSeconds\" is 0; it must be a number from 1 to 3600",
          ":15: nodes[1].config: \"maxOpenFiles\" is 257; it must be a number from 1 to 256",
          ":16: nodes[1].config: \"roots\" is \"b\"; it must be an absolute path",
          ":16: nodes[1].config: \"roots\" is \"/var/lib/dpkg\"; it must be a folder of its own",
          ":17: nodes[2].config: \"socketPath\" is \"gateway.sock\"; it must be an absolute path",
          ":18: nodes[2].config: \"socketMode\" is \"0999\"; it must be a text of octal permission bits",
          ":20: nodes[3].config: \"listen\" is \"nonsense\"; it must be an address such as tcp://*:5700",
          ":21: nodes[4].config: \"excludedRoots\" is \"media/own\"; it must be an absolute path"}) {
        EXPECT_THAT(output, HasSubstr(file.string() + error));
    }
}

TEST(GraphFile, KeepsTheUpdatesFolderAwayFromWhatIsNeeded) {
    const TemporaryFolder folder;
    std::filesystem::create_directories(folder / "state/updates");
    std::filesystem::create_directory_symlink("/etc", folder / "link");
    const std::pair<std::string, const char*> cases[]{
        {"/", "must be a folder of its own"},
        {"/var/lib/../lib/", "must be a folder of its own"},
        {(folder / "link").string(), "it belongs to the system"},
        {folder.Path().string(), "it holds "},
        {"/dev/shm", "must be a folder of its own"},
        {(folder / "state/updates").string(), "no errors, nodes: 1"},
    };
    const auto keys = folder.Write("keys.json", R"({ "core": { "updatesFolder": ")" + (folder / "state").string() +
                                                    R"(" }, "libraries": [ "libNodePeer.so" ], "nodes": [
        { "name": "Link", "class": "ZNodePeer", "config": { "pinsFile": "/p",
          "keyFile": ")" + (folder / "state/keys/k").string() +
                                                    R"(" } } ] })");
    EXPECT_THAT(Check(keys), HasSubstr(":3: nodes[0].config: \"keyFile\" lies in the updates folder"));
    for (const auto& [updates, refusal] : cases) {
        const auto file =
            folder.Write("graph.json", "{" + kGood + R"(, "core": { "updatesFolder": ")" + updates + "\" } }");
        EXPECT_THAT(Check(file), HasSubstr(refusal)) << updates;
    }
}

TEST(GraphFile, SaysWhatARealInstrumentStillNeeds) {
    const TemporaryFolder folder;
    std::filesystem::create_directories(folder / "trust");
    const auto file = folder.Write("graph.json", R"({ "platform": { "mounts": {"/dev/x": "/x"},
"identity": { "model": "KiteQM" } },
"libraries": [ "libNodeArborInstall.so", "libNodeTrial.so", "libNodeGateway.so" ], "nodes": [
{ "name": "Install", "class": "ZNodeArborInstall", "config": { "ArchiveDevice": "/dev/nothing",
"TrustedSigners": ")" + (folder / "trust").string() +
                                                     R"(" } },
{ "name": "Trial", "class": "ZNodeTrial", "config": { "bootSettings": "/nowhere/boot.json" } },
{ "name": "Gateway", "class": "ZNodeGateway", "config": {
"developerMode": true } } ] })");
    const std::string output = Check(file);
    EXPECT_THAT(output, StartsWith("0\n"));
    for (const char* const note : {":2: platform: the identity is simulated", ":1: platform: mounts are simulated",
                                   ":3: nodes: without a ZNodeStorage", ":3: nodes: without a ZNodeJournal",
                                   ":4: nodes[0].config: \"ArchiveDevice\" /dev/nothing is not mounted here",
                                   ":4: nodes[0]: \"SystemInfoFilePath\" is not set",
                                   ":5: nodes[0].config: \"TrustedSigners\" nobody is named in ",
                                   ":6: nodes[1].config: \"bootSettings\" there is no /nowhere/boot.json",
                                   ":8: nodes[2].config: \"developerMode\" is on"}) {
        EXPECT_THAT(output, HasSubstr(file.string() + note));
    }
}

TEST(GraphFile, SchemaIsMadeFromTheSettings) {
    ArbordProcess arbord({"--schema"});
    ASSERT_EQ(arbord.WaitForExit(), 0) << arbord.Output();
    EXPECT_EQ(json::parse(arbord.Output()), json::parse(ReadText(GRAPH_SCHEMA)))
        << "scripts/settings.py writes the file, and docs/settings.md with it";
}
