#include "GraphFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>

#include "PlatformParams.h"
#include "RecordReader.h"

namespace json = boost::json;

namespace {

constexpr std::uintmax_t kLargestFile = 1'048'576;

/// Reads one document's sections into a GraphFile.
class GraphReader {
public:
    GraphReader(const json::object& root, GraphErrors& errors) : m_root(root), m_errors(errors) {
        m_graph.environment = std::make_shared<ZEnvironment>();
        m_graph.core = ZMakeShared<ZCoreConfigParams>();
    }

    GraphFile Read() {
        CheckKeys(m_root, {}, {"$schema", "core", "comms", "log", "platform", "libraries", "nodes"}, m_errors);
        ReadCore();
        ReadLog();
        ReadPlatform();
        CheckUpdatesFolder();
        ReadLibraries();
        ReadNodes();
        return std::move(m_graph);
    }

private:
    /// Reads one section's records, all with the graph's environment.
    void ReadSection(const std::string& key, const std::vector<ZConfig*>& records,
                     const std::set<std::string>& others = {}) {
        for (ZConfig* record : records) {
            record->SetEnvironment(m_graph.environment);
        }
        ReadRecords(Object(m_root, {}, key), GraphPlace().Member(key), records, others, m_errors);
    }

    void ReadCore() {
        ZCoreConfigParams& core = *m_graph.core;
        core.m_GraphFile = ToZString(std::filesystem::absolute(m_errors.File()).string());
        ReadSection("core", {&core, &core.m_Files});
        ReadSection("comms", {&core.m_Comms});
    }

    void ReadLog() {
        ZLogParams log;
        ReadSection("log", {&log});
        m_graph.logLevel = log.m_Level;
        m_graph.log = {log.m_bConsole, log.m_bJournal, ToStdString(log.m_File), log.m_FileSizeKiB, log.m_FileCount};
    }

    void ReadPlatform() {
        ZPlatformParams platform;
        const GraphPlace place = GraphPlace().Member("platform");
        ReadSection("platform", {&platform}, {"identity", "mounts"});
        m_graph.platform.eepromPath = ToStdString(platform.m_Eeprom);
        m_graph.platform.transientUnits = platform.m_bTransientUnits;
        m_graph.platform.commandTimeout = std::chrono::seconds(platform.m_CommandTimeoutSeconds);
        const json::object object = Object(m_root, {}, "platform", Told::Already);
        if (object.contains("identity")) {
            ZIdentityParams identity;
            ReadRecords(Object(object, place, "identity"), place.Member("identity"), {&identity}, {}, m_errors);
            m_graph.platform.identity = ZIdentity{ToStdString(identity.m_Model), ToStdString(identity.m_SerialNumber),
                                                  ToStdString(identity.m_Board)};
        }
        const json::object mounts = Object(object, place, "mounts");
        for (const auto& mount : mounts) {
            m_graph.platform.mounts[mount.key()] = Text(mounts, place.Member("mounts"), mount.key());
        }
    }

    /// The folder whose contents are deleted at every start must hold nothing that is needed.
    void CheckUpdatesFolder() {
        const ZCoreConfigParams& core = *m_graph.core;
        const ZString& folder = core.m_Files.m_UpdatesFolder;
        if (folder.empty() || !IsFolderOfItsOwn(folder)) {
            return;  // none, or told already
        }
        const std::filesystem::path graphFile(core.m_GraphFile);
        if (const auto may = MayBeEmptied(std::filesystem::path(folder), {graphFile, m_graph.log.file}); !may) {
            m_errors.Add(GraphPlace().Member("core"), "updatesFolder", "\"updatesFolder\": " + may.error().text);
        }
    }

    void ReadLibraries() {
        const GraphPlace place = GraphPlace().Member("libraries");
        const json::array libraries = Array("libraries");
        for (std::size_t index = 0; index < libraries.size(); ++index) {
            if (libraries[index].is_string() && !libraries[index].get_string().empty()) {
                m_graph.libraries.emplace_back(libraries[index].get_string());
            } else {
                m_errors.Add(place.Element(index), "is not a library's name or path");
            }
        }
    }

    void ReadNodes() {
        const GraphPlace place = GraphPlace().Member("nodes");
        const json::array nodes = Array("nodes");
        if (nodes.empty()) {
            m_errors.Add(GraphPlace(), "nodes", "\"nodes\" names no node");
        }
        std::set<std::string> names;
        for (std::size_t index = 0; index < nodes.size(); ++index) {
            if (!nodes[index].is_object()) {
                m_errors.Add(place.Element(index), "is not an object");
                continue;
            }
            const std::string name = ReadNode(nodes[index].get_object(), place.Element(index));
            if (!name.empty() && !names.insert(name).second) {
                m_errors.Add(place.Element(index), "name", "a second node is named \"" + name + '"');
            }
        }
    }

    std::string ReadNode(const json::object& object, const GraphPlace& place) {
        CheckKeys(object, place, {"name", "class", "configClass", "config", "required"}, m_errors);
        GraphNode node;
        node.place = place;
        std::string name = Text(object, place, "name");
        node.name = ToZString(name);
        node.className = Text(object, place, "class");
        node.configClass = object.contains("configClass") ? Text(object, place, "configClass") : node.className + "Cfg";
        if (object.contains("config")) {
            node.config = Object(object, place, "config");
        }
        ReadRequired(object, place, node);
        m_graph.nodes.push_back(std::move(node));
        return name;
    }

    void ReadRequired(const json::object& object, const GraphPlace& place, GraphNode& node) {
        const json::value* required = object.if_contains("required");
        if (required == nullptr) {
            return;
        }
        if (!required->is_bool()) {
            m_errors.Add(place, "required", "\"required\" is not true or false");
            return;
        }
        node.required = required->get_bool();
        if (!node.required && (node.className == "ZNodeArborInstall" || node.className == "ZNodeStorage")) {
            m_errors.Add(place, "required",
                         "\"required\" is false; without a " + node.className + " nothing is updated");
        }
    }

    /// The object that is the value of `key`; empty when there is none.
    enum class Told { NotYet, Already };
    json::object Object(const json::object& parent, const GraphPlace& place, const std::string& key,
                        Told told = Told::NotYet) {
        const json::value* value = parent.if_contains(key);
        if (value != nullptr && !value->is_object() && told == Told::NotYet) {
            m_errors.Add(place, key, '"' + key + "\" is not an object");
        }
        return value != nullptr && value->is_object() ? value->get_object() : json::object();
    }

    json::array Array(const std::string& key) {
        const json::value* value = m_root.if_contains(key);
        if (value != nullptr && !value->is_array()) {
            m_errors.Add(GraphPlace(), key, '"' + key + "\" is not a list");
        }
        return value != nullptr && value->is_array() ? value->get_array() : json::array();
    }

    /// A text that must be there and not empty.
    std::string Text(const json::object& parent, const GraphPlace& place, const std::string& key) {
        const json::value* value = parent.if_contains(key);
        if (value != nullptr && value->is_string() && !value->get_string().empty()) {
            return std::string(value->get_string());
        }
        m_errors.Add(place, key,
                     '"' + key + (value == nullptr ? "\" is missing" : "\" is not a text with something in it"));
        return {};
    }

    const json::object& m_root;
    GraphErrors& m_errors;
    GraphFile m_graph;
};

std::optional<std::string> ReadText(GraphErrors& errors) {
    std::error_code code;
    const auto size = std::filesystem::file_size(errors.File(), code);
    if (code || size > kLargestFile) {
        errors.AddToFile(code ? "could not be read: " + code.message() : "is larger than 1 MiB");
        return std::nullopt;
    }
    std::ifstream input(errors.File(), std::ios::binary);
    std::string text(static_cast<std::size_t>(size), '\0');
    if (!input || !input.read(text.data(), static_cast<std::streamsize>(text.size()))) {
        errors.AddToFile("could not be read: " + std::string(std::strerror(errno)));
        return std::nullopt;
    }
    return text;
}

std::optional<json::object> Parse(const std::string& text, GraphErrors& errors) {
    json::stream_parser parser;
    boost::system::error_code code;
    const std::size_t used = parser.write_some(text.data(), text.size(), code);
    if (!code && !parser.done()) {
        parser.finish(code);
    }
    const bool more = !code && text.find_first_not_of(" \t\r\n", used) != std::string::npos;
    if (code || more) {
        errors.AddToLine(GraphLines::LineAt(text, used),
                         more ? "there is more text behind the document's end" : "this is no JSON: " + code.message());
        return std::nullopt;
    }
    json::value root = parser.release();
    if (!root.is_object()) {
        errors.AddToLine(1, "the document is no object");
        return std::nullopt;
    }
    return std::move(root.get_object());
}

}  // namespace

GraphFile ReadGraphFile(GraphErrors& errors) {
    const auto text = ReadText(errors);
    const auto root = text ? Parse(*text, errors) : std::nullopt;
    if (!root) {
        return {};
    }
    GraphLines lines(*text);
    for (const std::string& path : lines.Repeated()) {
        errors.AddToLine(lines.LineOf(path), '"' + path.substr(path.find_last_of('/') + 1) + "\" stands here twice");
    }
    errors.SetLines(std::move(lines));
    return GraphReader(*root, errors).Read();
}

std::shared_ptr<ZConfig> MakeRecord(const GraphNode& node, const std::shared_ptr<ZEnvironment>& environment,
                                    const std::filesystem::path& updatesFolder, GraphErrors& errors) {
    if (!node.config) {
        return nullptr;
    }
    auto record = cast_shared<ZConfig>(ZShared::ZFactory::Instance().CreateShared(node.configClass, node.name));
    if (!record) {
        errors.Add(node.place, "configClass", '"' + node.configClass + "\" is not the name of a record class");
        return nullptr;
    }
    record->SetEnvironment(environment);
    ReadRecords(*node.config, node.place.Member("config"), {record.get()}, {}, errors);
    record->VisitFields([&](const ZFieldInfo& field, const ZFieldValue& value) {
        const auto* const text = std::get_if<ZString*>(&value);
        if (field.rule.kind == ZFieldRule::Kind::Path && text != nullptr && !(*text)->empty() &&
            !updatesFolder.empty() && LiesIn(std::filesystem::path(**text), updatesFolder)) {
            const std::string key(field.key);
            errors.Add(node.place.Member("config"), key,
                       '"' + key + "\" lies in the updates folder, which is emptied at every start");
        }
    });
    return record;
}
