#include "ZMessages/ZJSONCommStream.h"

#include <boost/json.hpp>

#include "ZMessages/ZMessage.h"
#include "ZShared/ZError.h"

namespace json = boost::json;

Z_IMPLEMENT(ZCommStreamObject)
Z_IMPLEMENT(ZCommStream)
Z_IMPLEMENT(ZJSONCommStream)

bool ZCommStreamObject::Serialize(ZCommStream&) const {
    return true;
}
bool ZCommStreamObject::Deserialize(ZCommStream&) {
    return true;
}

void ZCommStream::SetError(std::string_view key, std::string_view wanted) {
    constexpr std::size_t kMost = 64;  // a text from outside may hold any number of wrong values
    if (m_complaints.size() < kMost) {
        std::string text(wanted);
        if (!key.empty()) {
            text = '"' + std::string(key) + "\" is not " + text;
        }
        m_complaints.push_back({std::string(key), std::move(text)});
    }
}

struct ZJSONCommStream::Document {
    json::object root;
    // The object that keys are looked up in: the root, or a nested one while ReadObject or WriteObject runs.
    json::object* current = &root;

    const json::value* Find(std::string_view key) const { return current->if_contains(key); }

    /// Runs `work` with `object` as the one that keys are looked up in.
    template <typename Work>
    auto In(json::object& object, Work work) {
        json::object* const outer = current;
        current = &object;
        auto result = work();
        current = outer;
        return result;
    }
};

ZJSONCommStream::ZJSONCommStream() : m_document(std::make_unique<Document>()) {}
ZJSONCommStream::~ZJSONCommStream() = default;

namespace {

/// One document from the front of `text`, which is shortened by it.
ZResult<json::value> TakeDocument(json::stream_parser& parser, std::string_view& text) {
    parser.reset();
    boost::system::error_code code;
    const std::size_t used = parser.write_some(text.data(), text.size(), code);
    if (!code && !parser.done()) {
        parser.finish(code);
    }
    if (code) {
        return ZError("The text is not whole JSON: " + code.message());
    }
    text.remove_prefix(used);
    return parser.release();
}

std::string_view WithoutLeadingBlanks(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t\r\n");
    return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

}  // namespace

bool ZJSONCommStream::LoadText(std::string_view text) {
    Clear();
    json::parse_options options;
    options.max_depth = 32;
    json::stream_parser parser({}, options);
    std::string_view rest = WithoutLeadingBlanks(text);
    if (rest.empty()) {
        SetError({}, "The text is empty");
        return false;
    }
    json::object merged;
    for (; !rest.empty(); rest = WithoutLeadingBlanks(rest)) {
        auto value = TakeDocument(parser, rest);
        if (!value || !value->is_object()) {
            SetError({}, value ? "The text is no JSON object" : value.error().text);
            return false;
        }
        if (merged.empty()) {
            merged = std::move(value->get_object());
            continue;
        }
        for (auto& member : value->get_object()) {
            merged.insert_or_assign(member.key(), std::move(member.value()));
        }
    }
    m_document->root = std::move(merged);
    return true;
}

std::string ZJSONCommStream::Text() const {
    return json::serialize(m_document->root);
}

void ZJSONCommStream::Clear() {
    m_document->root.clear();
    m_document->current = &m_document->root;
    ClearError();
}

void ZJSONCommStream::WriteBool(std::string_view key, bool value) {
    m_document->current->insert_or_assign(key, value);
}
void ZJSONCommStream::WriteInt(std::string_view key, std::int64_t value) {
    m_document->current->insert_or_assign(key, value);
}
void ZJSONCommStream::WriteUInt(std::string_view key, std::uint64_t value) {
    m_document->current->insert_or_assign(key, value);
}
void ZJSONCommStream::WriteDouble(std::string_view key, double value) {
    m_document->current->insert_or_assign(key, value);
}
void ZJSONCommStream::WriteString(std::string_view key, std::string_view value) {
    m_document->current->insert_or_assign(key, value);
}

void ZJSONCommStream::WriteStrings(std::string_view key, const ZVector<ZString>& values) {
    json::array array;
    array.reserve(values.size());
    for (const ZString& value : values) {
        array.emplace_back(std::string_view(value));
    }
    m_document->current->insert_or_assign(key, std::move(array));
}

void ZJSONCommStream::WriteObject(std::string_view key, const ZCommStreamObject& value) {
    json::object object;
    m_document->In(object, [&] { return value.Serialize(*this); });
    m_document->current->insert_or_assign(key, std::move(object));
}

void ZJSONCommStream::WriteMessages(std::string_view key, const ZVector<std::shared_ptr<ZMessage>>& values) {
    json::array array;
    array.reserve(values.size());
    for (const auto& message : values) {
        if (message) {
            json::object object;
            m_document->In(object, [&] { return message->SerializeMessage(*this); });
            array.emplace_back(std::move(object));
        }
    }
    m_document->current->insert_or_assign(key, std::move(array));
}

bool ZJSONCommStream::Has(std::string_view key) const {
    return m_document->Find(key) != nullptr;
}

bool ZJSONCommStream::IsText(std::string_view key) const {
    const json::value* found = m_document->Find(key);
    return found != nullptr && found->is_string();
}

bool ZJSONCommStream::ReadBool(std::string_view key, bool& value) {
    const json::value* found = m_document->Find(key);
    if (IsLenient() && found != nullptr && found->is_number()) {
        value = found->to_number<double>() != 0;
        return true;
    }
    if (found == nullptr || !found->is_bool()) {
        if (found != nullptr) {
            SetError(key, "true or false");
        }
        return false;
    }
    value = found->get_bool();
    return true;
}

bool ZJSONCommStream::ReadInt(std::string_view key, std::int64_t& value, std::int64_t least, std::int64_t most) {
    const json::value* found = m_document->Find(key);
    if (found == nullptr) {
        return false;
    }
    boost::system::error_code code;
    const auto number = found->to_number<std::int64_t>(code);
    if (code || number < least || number > most) {
        SetError(key, "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
        return false;
    }
    value = number;
    return true;
}

bool ZJSONCommStream::ReadUInt(std::string_view key, std::uint64_t& value, std::uint64_t most) {
    const json::value* found = m_document->Find(key);
    if (found == nullptr) {
        return false;
    }
    boost::system::error_code code;
    const auto number = found->to_number<std::uint64_t>(code);
    if (code || number > most) {
        SetError(key, "a whole number from 0 to " + std::to_string(most));
        return false;
    }
    value = number;
    return true;
}

bool ZJSONCommStream::ReadDouble(std::string_view key, double& value) {
    const json::value* found = m_document->Find(key);
    if (found == nullptr || !found->is_number()) {
        if (found != nullptr) {
            SetError(key, "a number");
        }
        return false;
    }
    value = found->to_number<double>();
    return true;
}

bool ZJSONCommStream::ReadString(std::string_view key, ZString& value) {
    const json::value* found = m_document->Find(key);
    if (found == nullptr || !found->is_string()) {
        if (found != nullptr) {
            SetError(key, "a text");
        }
        return false;
    }
    value.assign(found->get_string().data(), found->get_string().size());
    return true;
}

bool ZJSONCommStream::ReadStrings(std::string_view key, ZVector<ZString>& values) {
    const json::value* found = m_document->Find(key);
    if (found == nullptr) {
        return false;
    }
    ZVector<ZString> texts;
    for (const json::value& element : found->is_array() ? found->get_array() : json::array{nullptr}) {
        if (!element.is_string()) {
            SetError(key, "a list of texts");
            return false;
        }
        texts.emplace_back(element.get_string().data(), element.get_string().size());
    }
    values = std::move(texts);
    return true;
}

bool ZJSONCommStream::ReadObject(std::string_view key, ZCommStreamObject& value) {
    json::value* found = m_document->current->if_contains(key);
    if (found == nullptr || !found->is_object()) {
        if (found != nullptr) {
            SetError(key, "an object");
        }
        return false;
    }
    return m_document->In(found->get_object(), [&] { return value.Deserialize(*this); });
}

bool ZJSONCommStream::ReadMessages(std::string_view key, ZVector<std::shared_ptr<ZMessage>>& values,
                                   std::string_view defaultClass) {
    json::value* found = m_document->current->if_contains(key);
    if (found == nullptr) {
        return false;
    }
    if (!found->is_array()) {
        SetError(key, "a list of messages");
        return false;
    }
    ZVector<std::shared_ptr<ZMessage>> messages;
    for (json::value& element : found->get_array()) {
        const auto create = [&] { return ZMessage::CreateFrom(*this, defaultClass); };
        auto message = element.is_object() ? m_document->In(element.get_object(), create) : nullptr;
        if (!message) {
            SetError(key, "a list of messages of known classes");
            return false;
        }
        messages.push_back(std::move(message));
    }
    values = std::move(messages);
    return true;
}
