#include "GraphSchema.h"

#include <boost/json.hpp>

#include "NodeBase/ZNode.h"
#include "PlatformParams.h"

namespace json = boost::json;

namespace {

json::object Described(json::object schema, const char* meaning) {
    if (*meaning != '\0') {
        schema["description"] = meaning;
    }
    return schema;
}

/// What the rule wants of a text, or of each in a list.
json::object TextSchema(const ZFieldRule& rule) {
    json::object schema{{"type", "string"}};
    if (rule.kind == ZFieldRule::Kind::Path) {
        schema["pattern"] = rule.bMayBeEmpty ? "^([/$].*)?$" : "^[/$]";
    } else if (*rule.pattern != '\0') {
        schema["pattern"] = rule.pattern;
    }
    return schema;
}

json::array ToArray(const ZVector<ZString>& texts) {
    json::array array;
    for (const ZString& text : texts) {
        array.emplace_back(std::string_view(text));
    }
    return array;
}

json::object IntegerSchema(const ZFieldInfo& field) {
    const bool ranged = field.rule.kind == ZFieldRule::Kind::Range;
    json::object schema{{"type", "integer"}};
    schema["minimum"] = ranged ? field.rule.least : field.least;
    schema["maximum"] = ranged ? static_cast<std::uint64_t>(field.rule.most) : field.most;
    return schema;
}

/// One setting: its type, what its value must be, what it is when nothing is said, and what it means.
json::object FieldSchema(const ZFieldInfo& field, const ZFieldValue& standard) {
    json::object schema;
    switch (field.type) {
        case ZFieldType::Bool:
            schema = {{"type", "boolean"}, {"default", std::get<bool>(standard)}};
            break;
        case ZFieldType::Integer:
            schema = IntegerSchema(field);
            schema["default"] = std::get<std::int64_t>(standard);
            break;
        case ZFieldType::Enumeration:
            schema = {{"enum", json::array(field.names.begin(), field.names.end())},
                      {"default", std::get<std::string_view>(standard)}};
            break;
        case ZFieldType::Text:
            schema = TextSchema(field.rule);
            schema["default"] = std::string_view(*std::get<ZString*>(standard));
            break;
        case ZFieldType::TextList:
            schema = {{"type", "array"},
                      {"items", TextSchema(field.rule)},
                      {"default", ToArray(*std::get<ZVector<ZString>*>(standard))}};
            break;
        default:
            schema = {{"type", field.type == ZFieldType::Number ? "number" : "object"}};
    }
    if (*field.rule.example != '\0') {
        schema["examples"] = json::array{json::parse(field.rule.example)};
    }
    return Described(std::move(schema), field.rule.meaning);
}

json::object ObjectSchema(json::object properties, const char* meaning = "") {
    return Described({{"type", "object"}, {"additionalProperties", false}, {"properties", std::move(properties)}},
                     meaning);
}

json::object Properties(std::initializer_list<ZConfig*> records) {
    json::object properties;
    for (ZConfig* record : records) {
        record->VisitFields([&properties](const ZFieldInfo& field, const ZFieldValue& value) {
            properties[field.key] = FieldSchema(field, value);
        });
    }
    return properties;
}

json::object Text(const char* meaning, const char* example = nullptr) {
    json::object schema{{"type", "string"}, {"minLength", 1}};
    if (example != nullptr) {
        schema["examples"] = json::array{example};
    }
    return Described(std::move(schema), meaning);
}

json::object PlatformSchema() {
    ZPlatformParams platform;
    ZIdentityParams identity;
    json::object properties = Properties({&platform});
    properties["identity"] =
        ObjectSchema(Properties({&identity}), "Stands in for the EEPROM on a development machine.");
    properties["mounts"] =
        Described({{"type", "object"},
                   {"additionalProperties", {{"type", "string"}, {"minLength", 1}}},
                   {"examples", json::array{json::object{{"/dev/mmcblk1p3", "/media/mmcblk1p3"}}}}},
                  "Device to mount point. Stands in for the kernel's mount table on a development machine.");
    return ObjectSchema(std::move(properties));
}

/// A node class's name, and its record's.
using NodeClass = std::pair<std::string, std::string>;

std::vector<NodeClass> NodeClasses() {
    ZShared::ZFactory& factory = ZShared::ZFactory::Instance();
    std::vector<NodeClass> classes;
    for (const std::string& name : factory.ClassesOf(ZNode::m_cid)) {
        if (factory.Find(name + "Cfg").IsKindOf(ZConfig::m_cid)) {
            classes.emplace_back(name, name + "Cfg");
        }
    }
    return classes;
}

json::object NodeSchema() {
    json::object node = ObjectSchema(
        {{"name", Text("No two nodes share a name.")},
         {"class", Text("")},
         {"configClass", Text("The class of the record, if it is not the node's class followed by \"Cfg\".")},
         {"required",
          Described({{"type", "boolean"}, {"default", true}},
                    "Whether the graph does without the others when this node can't start. One that is not required is "
                    "left out, told, and tried again. The update node and its storage are always required.")},
         {"config", Described({{"type", "object"}}, "The node's own record. Without it the node gets none.")}});
    node["required"] = json::array{"name", "class"};
    json::array records;
    for (const auto& [name, record] : NodeClasses()) {
        records.push_back(
            json::object{{"if", {{"properties", {{"class", {{"const", name}}}}}}},
                         {"then", {{"properties", {{"config", {{"$ref", "#/definitions/" + record}}}}}}}});
    }
    node["allOf"] = std::move(records);
    return node;
}

json::object Definitions() {
    json::object definitions;
    for (const auto& [name, record] : NodeClasses()) {
        const auto made = cast_shared<ZConfig>(ZShared::ZFactory::Instance().CreateShared(record));
        definitions[record] = ObjectSchema(Properties({made.get()}));
    }
    return definitions;
}

}  // namespace

std::string GraphSchema() {
    ZCoreConfigParams core;
    ZLogParams log;
    json::object sections{
        {"$schema", {{"type", "string"}, {"description", "This schema, for editors. The host does not read it."}}},
        {"core", ObjectSchema(Properties({&core, &core.m_Files}))},
        {"comms", ObjectSchema(Properties({&core.m_Comms}))},
        {"log", ObjectSchema(Properties({&log}))},
        {"platform", PlatformSchema()},
        {"libraries",
         Described({{"type", "array"}, {"items", Text("", "libNodeArborInstall.so")}},
                   "Node libraries: names, looked for beside the program, or paths, relative to this file.")},
        {"nodes", Described({{"type", "array"}, {"minItems", 1}, {"items", NodeSchema()}},
                            "The nodes, in the order in which they are started.")}};
    json::object schema = ObjectSchema(
        std::move(sections),
        "The nodes that one graph host runs, and what they share. Paths may hold $NAME and ${NAME}, environment "
        "variables of the host.");
    schema["$schema"] = "http://json-schema.org/draft-07/schema#";
    schema["title"] = "Graph file of arbord";
    schema["required"] = json::array{"nodes"};
    schema["definitions"] = Definitions();
    return json::serialize(schema);
}
