#include "GraphFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "RecordReader.h"

namespace json = boost::json;

/// The plain members of the section "platform".
class ZPlatformParams : public ZConfig {
    Z_MESSAGE(ZPlatformParams, ZConfig)
public:
    ZString m_Eeprom;
    std::uint32_t m_CommandTimeoutSeconds = 900;

    Z_FIELDS(Z_FIELD(m_Eeprom), Z_FIELD(m_CommandTimeoutSeconds))
};
Z_IMPLEMENT(ZPlatformParams)

/// An identity that stands in for the EEPROM's.
class ZIdentityParams : public ZConfig {
    Z_MESSAGE(ZIdentityParams, ZConfig)
public:
    ZString m_Model;
    ZString m_SerialNumber;
    ZString m_Board;

    Z_FIELDS(Z_FIELD(m_Model), Z_FIELD(m_SerialNumber), Z_FIELD(m_Board))
};
Z_IMPLEMENT(ZIdentityParams)

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
        ReadLibraries();
        ReadNodes();
        return std::move(m_graph);
    }

private:
    void ReadCore() {
        ZCoreConfigParams& core = *m_graph.core;
        const GraphPlace place = GraphPlace().Member("core");
        ReadRecords(Object(m_root, {}, "core"), place, {&core, &core.m_Files}, {}, m_errors);
        ReadRecords(Object(m_root, {}, "comms"), GraphPlace().Member("comms"), {&core.m_Comms}, {}, m_errors);
        core.SetEnvironment(m_graph.environment);
        core.m_Comms.SetEnvironment(m_graph.environment);
        ResolvePath(place, "updatesFolder", core.m_Files.m_UpdatesFolder);
        if (!core.m_Files.m_UpdatesFolder.empty() && core.m_Files.m_UpdatesFolder.front() != '/') {
            m_errors.Add(place, "updatesFolder", "\"updatesFolder\" is not an absolute path");
        }
        RequireAtLeastOne(place, "requestTimeoutSeconds", core.m_RequestTimeoutSeconds);
        RequireAtLeastOne(place, "queueLength", core.m_QueueLength);
    }

    void ReadLog() {
        ZLogParams log;
        const GraphPlace place = GraphPlace().Member("log");
        ReadRecords(Object(m_root, {}, "log"), place, {&log}, {}, m_errors);
        ResolvePath(place, "file", log.m_File);
        RequireAtLeastOne(place, "fileSizeKiB", log.m_FileSizeKiB);
        if (log.m_Level < 0 || log.m_Level > 4) {
            m_errors.Add(place, "level", "\"level\" is not a level: 1 (detail) to 4 (errors), or 0 for none");
        }
        m_graph.logLevel = log.m_Level;
        m_graph.log = {log.m_bConsole, log.m_bJournal, ToStdString(log.m_File), log.m_FileSizeKiB, log.m_FileCount};
    }

    void ReadPlatform() {
        ZPlatformParams platform;
        const GraphPlace place = GraphPlace().Member("platform");
        const json::object object = Object(m_root, {}, "platform");
        ReadRecords(object, place, {&platform}, {"identity", "mounts"}, m_errors);
        ResolvePath(place, "eeprom", platform.m_Eeprom);
        RequireAtLeastOne(place, "commandTimeoutSeconds", platform.m_CommandTimeoutSeconds);
        m_graph.platform.eepromPath = ToStdString(platform.m_Eeprom);
        m_graph.platform.commandTimeout = std::chrono::seconds(platform.m_CommandTimeoutSeconds);
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
        CheckKeys(object, place, {"name", "class", "configClass", "config"}, m_errors);
        GraphNode node;
        node.place = place;
        std::string name = Text(object, place, "name");
        node.name = ToZString(name);
        node.className = Text(object, place, "class");
        node.configClass = object.contains("configClass") ? Text(object, place, "configClass") : node.className + "Cfg";
        if (object.contains("config")) {
            node.config = Object(object, place, "config");
        }
        m_graph.nodes.push_back(std::move(node));
        return name;
    }

    /// The object that is the value of `key`; empty when there is none.
    json::object Object(const json::object& parent, const GraphPlace& place, const std::string& key) {
        const json::value* value = parent.if_contains(key);
        if (value != nullptr && !value->is_object()) {
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

    void ResolvePath(const GraphPlace& place, const std::string& key, ZString& path) {
        std::filesystem::path resolved;
        if (m_graph.environment->ResolveEnvVarsInPath(std::filesystem::path(path), resolved)) {
            path = ToZString(resolved.string());
        } else {
            m_errors.Add(place, key, '"' + key + "\" names a variable that is not set: " + ToStdString(path));
        }
    }

    void RequireAtLeastOne(const GraphPlace& place, const std::string& key, std::uint32_t value) {
        if (value == 0) {
            m_errors.Add(place, key, '"' + key + "\" must be at least 1");
        }
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
                                    GraphErrors& errors) {
    if (!node.config) {
        return nullptr;
    }
    const auto record = cast_shared<ZConfig>(ZShared::ZFactory::Instance().CreateShared(node.configClass, node.name));
    if (!record) {
        errors.Add(node.place, "configClass", '"' + node.configClass + "\" is not the name of a record class");
        return nullptr;
    }
    record->SetEnvironment(environment);
    return ReadRecords(*node.config, node.place.Member("config"), {record.get()}, {}, errors) ? record : nullptr;
}
