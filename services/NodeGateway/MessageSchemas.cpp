#include "MessageSchemas.h"

#include <boost/json.hpp>

#include "ZCoreConfigs/ZConfig.h"

namespace json = boost::json;

namespace gateway {

namespace {

json::object EnumSchema(const ZFieldInfo& field) {
    json::array names(field.names.begin(), field.names.end());
    return {{"anyOf", json::array{json::object{{"type", "string"}, {"enum", std::move(names)}},
                                  json::object{{"type", "integer"}}}}};
}

/// The schema of a message in a list, or in a field.
json::object MessageSchema(const char* className) {
    if (*className == '\0') {
        return {{"type", "object"},
                {"required", json::array{"className"}},
                {"description", "A message of the class that it names"}};
    }
    return {{"$ref", std::string("#/components/schemas/") + className}};
}

/// The schema of a field, with the value that it has when its key is missing.
json::object FieldSchema(const ZFieldInfo& field, const ZFieldValue& usual) {
    json::object schema;
    switch (field.type) {
        case ZFieldType::Bool:
            return {{"type", "boolean"}, {"default", std::get<bool>(usual)}};
        case ZFieldType::Integer:
            return {{"type", "integer"},
                    {"minimum", field.least},
                    {"maximum", field.most},
                    {"default", std::get<std::int64_t>(usual)}};
        case ZFieldType::Number:
            return {{"type", "number"}, {"default", std::get<double>(usual)}};
        case ZFieldType::Text:
            return {{"type", "string"}, {"default", std::string_view(*std::get<ZString*>(usual))}};
        case ZFieldType::TextList:
            return {{"type", "array"}, {"items", {{"type", "string"}}}};
        case ZFieldType::MessageList:
            return {{"type", "array"}, {"items", MessageSchema(field.className)}};
        case ZFieldType::Enumeration:
            schema = EnumSchema(field);
            schema["default"] = std::get<std::string_view>(usual);
            return schema;
        case ZFieldType::Object:
            break;
    }
    return MessageSchema(field.className);
}

}  // namespace

json::object MessageSchemas() {
    ZShared::ZFactory& factory = ZShared::ZFactory::Instance();
    json::object schemas;
    for (const std::string& name : factory.ClassesOf(ZMessage::m_cid)) {
        const auto usual = cast_shared<ZMessage>(factory.CreateShared(name));
        if (!usual || usual->IsKindOf(ZConfig::m_cid)) {
            continue;  // records come from the graph file and never travel
        }
        json::object properties{{"className", {{"const", name}}}};
        usual->VisitFields([&properties](const ZFieldInfo& field, const ZFieldValue& value) {
            properties[field.key] = FieldSchema(field, value);
        });
        schemas[name] = {{"type", "object"}, {"properties", std::move(properties)}};
    }
    return schemas;
}

}  // namespace gateway
