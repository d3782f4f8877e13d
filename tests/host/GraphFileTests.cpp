#include <gmock/gmock.h>

#include <boost/algorithm/string/join.hpp>
#include <boost/json.hpp>
#include <set>

#include "ArbordProcess.h"

namespace json = boost::json;
using testing::HasSubstr;
using testing::StartsWith;

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
    const struct {
        std::string text;
        std::vector<std::string> errors;
    } cases[] = {
        {"", {":1: this is no JSON: incomplete JSON"}},
        {"{\n\n \"core\": ! }", {":3: this is no JSON: "}},
        {"{@}\n{}", {":2: there is more text behind the document's end"}},
        {"[]", {":1: the document is no object"}},
        {"{\n\"core\": {}, @,\n\"core\": {} }", {":3: \"core\" stands here twice"}},
        {"{@,\n\"cores\": {}}", {":2: \"cores\" is no known key here; known are: $schema, comms, core, "}},
        {"{@, \"core\": {\n\"queueLength\": 0,\n\"updatesFolder\": 5 }}",
         {":2: core: \"queueLength\" must be at least 1", ":3: core: \"updatesFolder\" is not a text"}},
        {"{@, \"core\": {\n\"updatesFolder\": \"a/b\" }}", {":2: core: \"updatesFolder\" is not an absolute path"}},
        {"{@, \"log\":\n{ \"level\": 5, \"file\": \"$NO_SUCH_THING/x\" }}",
         {":2: log: \"level\" is not a level", ":2: log: \"file\" names a variable that is not set: $NO_SUCH_THING/x"}},
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

TEST(GraphFile, TakesEveryKeyOfItsSchemaAndNoOther) {
    const json::value schema = json::parse(ReadText(GRAPH_SCHEMA));
    const auto samples = [&](const std::string& pointer) {
        json::object all;
        for (const auto& [key, property] : schema.at_pointer(pointer + "/properties").as_object()) {
            if (const json::value* examples = property.as_object().if_contains("examples")) {
                all[key] = examples->at(0);
            } else if (const json::value* value = property.as_object().if_contains("default")) {
                all[key] = *value;
            }
        }
        EXPECT_FALSE(all.empty()) << pointer;
        return all;
    };
    json::object graph = samples("");
    for (const std::string section : {"core", "comms", "log", "platform"}) {
        graph[section] = samples("/properties/" + section);
    }
    graph["platform"].as_object()["identity"] = samples("/properties/platform/properties/identity");
    const auto check = [&graph](const std::string& node, const json::object& record) {
        const TemporaryFolder folder;
        graph["nodes"] = json::array{json::object{{"name", node}, {"class", node}, {"config", record}}};
        return Check(folder.Write("graph.json", json::serialize(graph)));
    };
    for (const std::string node :
         {"ZNodeArborInstall", "ZNodeStorage", "ZNodeDeviceProps", "ZNodeFileIO", "ZNodePeer", "ZNodeGateway"}) {
        const json::object record = samples("/definitions/" + node + "Cfg");
        std::set<std::string> keys;
        for (const auto& property : schema.at_pointer("/definitions/" + node + "Cfg/properties").as_object()) {
            keys.insert(std::string(property.key()));
        }
        EXPECT_THAT(check(node, {{"none", 1}}), HasSubstr("known are: " + boost::algorithm::join(keys, ", ") + "\n"));
        EXPECT_THAT(check(node, record), HasSubstr("no errors, nodes: 1"));
    }
}
