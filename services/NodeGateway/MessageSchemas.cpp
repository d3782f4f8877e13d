#include "MessageSchemas.h"

#include <boost/json.hpp>

#include "ZMessages/PeerMessages.h"

namespace json = boost::json;

namespace gateway {

namespace {

template <typename T>
json::object EnumSchema(T usual) {
    json::array names;
    for (const auto name : magic_enum::enum_names<T>()) {
        names.emplace_back(name);
    }
    json::object schema{{"anyOf", json::array{json::object{{"type", "string"}, {"enum", std::move(names)}},
                                              json::object{{"type", "integer"}}}}};
    schema["default"] = magic_enum::enum_name(usual);
    return schema;
}

/// The schema of a message in a list.
template <typename Element>
json::object ElementSchema() {
    if constexpr (std::is_same_v<Element, ZMessage>) {
        return {{"type", "object"},
                {"required", json::array{"className"}},
                {"description", "A message of the class that it names"}};
    } else {
        return {{"$ref", std::string("#/components/schemas/") + Element::kClassName}};
    }
}

/// The schema of a member's type, with the value that it has when its key is missing.
template <typename T>
json::object MemberSchema(const T& usual) {
    if constexpr (std::is_same_v<T, bool>) {
        return {{"type", "boolean"}, {"default", usual}};
    } else if constexpr (std::is_enum_v<T>) {
        return EnumSchema(usual);
    } else if constexpr (std::is_integral_v<T>) {
        return {{"type", "integer"},
                {"minimum", std::numeric_limits<T>::min()},
                {"maximum", std::numeric_limits<T>::max()},
                {"default", usual}};
    } else if constexpr (std::is_floating_point_v<T>) {
        return {{"type", "number"}, {"default", usual}};
    } else if constexpr (std::is_same_v<T, ZString>) {
        return {{"type", "string"}, {"default", std::string_view(usual)}};
    } else if constexpr (std::is_same_v<T, ZVector<ZString>>) {
        return {{"type", "array"}, {"items", {{"type", "string"}}}};
    } else {
        static_assert(ZFields::kIsMessageList<T>, "a field of this type has no schema yet");
        return {{"type", "array"}, {"items", ElementSchema<typename ZFields::ListedMessage<T>::Type>()}};
    }
}

template <typename Class>
void AddSchema(json::object& schemas) {
    json::object properties;
    properties["className"] = {{"const", Class::kClassName}};
    // The base's fields come first, as on the wire; a base stands before its classes in the list below.
    if (const json::value* base = schemas.if_contains(Class::Super::kClassName)) {
        for (const auto& [key, schema] : base->at("properties").as_object()) {
            properties.emplace(key, schema);
        }
    }
    const Class usual;
    std::apply([&](const auto&... field) { ((properties[field.key] = MemberSchema(usual.*field.member)), ...); },
               Class::Fields());
    schemas[Class::kClassName] = {{"type", "object"}, {"properties", std::move(properties)}};
}

template <typename... Classes>
json::object Schemas() {
    json::object schemas;
    (AddSchema<Classes>(schemas), ...);
    return schemas;
}

}  // namespace

json::object MessageSchemas() {
    return Schemas<ZGenericRequestMsg, ZGenericResponseMsg, ZVersionInfoMsg, ZMessageArray, ZSystemUpdateMsg,
                   ZSystemUpdateInProgressRequestMsg, ZSystemUpdateInProgressMsg, ZCompareVersionsMsg,
                   ZCompareVersionsResultMsg, ZDevicePropertiesMsg, ZDeviceCompatibilityMsg, InstallProgressMsg,
                   ZFileMsg, ZFileOpenMsg, ZFileWriteMsg, ZFileCloseMsg, TransferMsg, FolderUpdateMsg,
                   StorageDevicesMsg, ZPeerMsg, ZPeersMsg, ZPairMsg>();
}

}  // namespace gateway
