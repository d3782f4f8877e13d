#include "RecordReader.h"

#include "ZMessages/ZJSONCommStream.h"

namespace json = boost::json;

namespace {

/// The keys under which the record's members travel, which only the record itself knows.
std::set<std::string> KeysOf(const ZConfig& record) {
    ZJSONCommStream stream;
    record.Serialize(stream);
    const json::value document = json::parse(stream.Text());
    std::set<std::string> keys;
    for (const auto& member : document.as_object()) {
        keys.emplace(member.key());
    }
    return keys;
}

std::string Listed(const std::set<std::string>& keys) {
    std::string list;
    for (const std::string& key : keys) {
        list += (list.empty() ? "" : ", ") + key;
    }
    return list;
}

bool ReadRecord(const std::string& text, const GraphPlace& place, ZConfig& record, GraphErrors& errors) {
    ZJSONCommStream stream;
    // A record may put up with values of a wrong type; a graph file must not hold any.
    if (stream.LoadText(text) && record.Deserialize(stream) && stream.Error().empty()) {
        return true;
    }
    const std::string reason =
        stream.Error().empty() ? "refused by " + std::string(record.ClassName()) : stream.Error();
    errors.Add(place, stream.ErrorKey(), reason);
    return false;
}

}  // namespace

bool CheckKeys(const json::object& object, const GraphPlace& place, const std::set<std::string>& known,
               GraphErrors& errors) {
    bool good = true;
    for (const auto& member : object) {
        const std::string key(member.key());
        if (!known.contains(key)) {
            errors.Add(place, key, '"' + key + "\" is no known key here; known are: " + Listed(known));
            good = false;
        }
    }
    return good;
}

bool ReadRecords(const json::object& object, const GraphPlace& place, const std::vector<ZConfig*>& records,
                 const std::set<std::string>& others, GraphErrors& errors) {
    std::set<std::string> known = others;
    for (const ZConfig* record : records) {
        known.merge(KeysOf(*record));
    }
    bool good = CheckKeys(object, place, known, errors);
    const std::string text = json::serialize(object);
    for (ZConfig* record : records) {
        good = ReadRecord(text, place, *record, errors) && good;
    }
    return good;
}
