#include "RecordReader.h"

#include "ZCoreConfigs/ZSettings.h"
#include "ZMessages/ZJSONCommStream.h"

namespace json = boost::json;

namespace {

std::set<std::string> KeysOf(ZConfig& record) {
    std::set<std::string> keys;
    record.VisitFields([&keys](const ZFieldInfo& field, const ZFieldValue&) { keys.emplace(field.key); });
    return keys;
}

std::string Listed(const std::set<std::string>& keys) {
    std::string list;
    for (const std::string& key : keys) {
        list += (list.empty() ? "" : ", ") + key;
    }
    return list;
}

void ReadRecord(const std::string& text, const GraphPlace& place, ZConfig& record, GraphErrors& errors) {
    ZJSONCommStream stream;
    // A record may put up with values of a wrong type; a graph file must not hold any.
    const bool read = stream.LoadText(text) && record.Deserialize(stream);
    std::set<std::string> told;
    for (const auto& [key, reason] : stream.Complaints()) {
        errors.Add(place, key, reason);
        told.insert(key);
    }
    if (!read && told.empty()) {
        errors.Add(place, "refused by " + std::string(record.ClassName()));
    }
    for (const auto& [key, reason] : CheckSettings(record)) {
        if (!told.contains(key)) {
            errors.Add(place, key, reason);
        }
    }
}

}  // namespace

void CheckKeys(const json::object& object, const GraphPlace& place, const std::set<std::string>& known,
               GraphErrors& errors) {
    for (const auto& member : object) {
        const std::string key(member.key());
        if (!known.contains(key)) {
            errors.Add(place, key, '"' + key + "\" is no known key here; known are: " + Listed(known));
        }
    }
}

void ReadRecords(const json::object& object, const GraphPlace& place, const std::vector<ZConfig*>& records,
                 const std::set<std::string>& others, GraphErrors& errors) {
    std::set<std::string> known = others;
    for (ZConfig* record : records) {
        known.merge(KeysOf(*record));
    }
    CheckKeys(object, place, known, errors);
    const std::string text = json::serialize(object);
    for (ZConfig* record : records) {
        ReadRecord(text, place, *record, errors);
    }
}
