#pragma once

#include <array>
#include <limits>
#include <magic_enum/magic_enum.hpp>
#include <tuple>
#include <type_traits>

#include "ZMessages/ZMessage.h"

/// One declared member of a message: its key on the wire, where it stands in the object and, for a setting, what its
/// value must be: `Z_FIELD(m_IdleSeconds).In(1, 3600).Means("...")`. From this row follow reading, writing, copying,
/// checks, the graph file's schema and the tables of settings.
template <typename Class, typename Member>
struct ZField {
    std::string_view key;
    Member Class::*member;
    ZFieldRule rule{};

    /// A number from `least` to `most`.
    constexpr ZField In(std::int64_t least, std::int64_t most) const {
        static_assert(std::is_integral_v<Member>);
        ZField field = Of(ZFieldRule::Kind::Range, "");
        field.rule.least = least;
        field.rule.most = most;
        return field;
    }
    /// A text, or a list of texts, that `fits` accepts; `wanted` goes behind "it must be ".
    constexpr ZField Checked(bool (*fits)(std::string_view), const char* wanted, const char* pattern = "") const {
        ZField field = Of(rule.kind == ZFieldRule::Kind::Path ? rule.kind : ZFieldRule::Kind::Text, wanted);
        field.rule.fits = fits;
        field.rule.pattern = pattern;
        return field;
    }
    /// An absolute path, or a list of them, in which variables are replaced before anybody reads it.
    constexpr ZField Path() const { return Of(ZFieldRule::Kind::Path, "an absolute path whose variables are set"); }
    constexpr ZField OrEmpty() const {
        ZField field = *this;
        field.rule.bMayBeEmpty = true;
        return field;
    }
    /// What the setting means, and an example in JSON.
    constexpr ZField Means(const char* meaning, const char* example = "") const {
        ZField field = *this;
        field.rule.meaning = meaning;
        field.rule.example = example;
        return field;
    }

private:
    constexpr ZField Of(ZFieldRule::Kind kind, const char* wanted) const {
        ZField field = *this;
        field.rule.kind = kind;
        field.rule.wanted = wanted;
        return field;
    }
};

/// The key that a member has on the wire: its name without `m_`, `m_b` or `m_p`, starting in lower case
/// ("m_bReboot" is "reboot"). Made while compiling; its members are public so that it can be a template argument.
struct ZFieldKey {
    template <std::size_t N>
    consteval explicit ZFieldKey(const char (&memberName)[N]) {
        std::size_t from = 2;  // behind "m_"
        const bool marked = N > 4 && (memberName[2] == 'b' || memberName[2] == 'p');
        if (marked && memberName[3] >= 'A' && memberName[3] <= 'Z') {
            from = 3;
        }
        for (; from + 1 < N; ++from) {
            m_text[m_length++] = memberName[from];
        }
        if (m_text[0] >= 'A' && m_text[0] <= 'Z') {
            m_text[0] = static_cast<char>(m_text[0] - 'A' + 'a');
        }
    }
    std::array<char, 48> m_text{};
    std::size_t m_length = 0;
};

/// The key's text, for as long as the program runs.
template <ZFieldKey Key>
inline constexpr std::string_view kFieldKeyText{Key.m_text.data(), Key.m_length};

/// Inside a class's list of fields: one member under its usual key, or under a key that is fixed elsewhere.
#define Z_FIELD(member)                                  \
    ZField<Self, decltype(Self::member)> {               \
        kFieldKeyText<ZFieldKey(#member)>, &Self::member \
    }
#define Z_KEYED_FIELD(key, member)         \
    ZField<Self, decltype(Self::member)> { \
        key, &Self::member                 \
    }

namespace ZFields {

/// Copies of the messages; one that can't be copied is left out.
ZVector<std::shared_ptr<ZMessage>> CloneMessages(const ZVector<std::shared_ptr<ZMessage>>& messages);

/// The class of the messages in a list of messages; void for other types.
template <typename T>
struct ListedMessage {
    using Type = void;
};
template <typename T>
struct ListedMessage<ZVector<std::shared_ptr<T>>> {
    using Type = T;
};
template <typename T>
inline constexpr bool kIsMessageList = !std::is_void_v<typename ListedMessage<T>::Type>;

template <typename T>
void WriteValue(ZCommStream& stream, std::string_view key, const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        stream.WriteBool(key, value);
    } else if constexpr (std::is_enum_v<T>) {
        const std::string_view name = magic_enum::enum_name(value);
        if (name.empty()) {
            stream.WriteInt(key, static_cast<std::int64_t>(value));
        } else {
            stream.WriteString(key, name);
        }
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        stream.WriteInt(key, value);
    } else if constexpr (std::is_integral_v<T>) {
        stream.WriteUInt(key, value);
    } else if constexpr (std::is_floating_point_v<T>) {
        stream.WriteDouble(key, value);
    } else if constexpr (std::is_same_v<T, ZString>) {
        stream.WriteString(key, value);
    } else if constexpr (std::is_same_v<T, ZVector<ZString>>) {
        stream.WriteStrings(key, value);
    } else if constexpr (kIsMessageList<T>) {
        stream.WriteMessages(key, {value.begin(), value.end()});
    } else {
        static_assert(std::is_base_of_v<ZCommStreamObject, T>, "a field of this type can't travel");
        stream.WriteObject(key, value);
    }
}

/// By name, or by number: also a number that has no name, which a newer peer may send.
template <typename T>
bool ReadEnum(ZCommStream& stream, std::string_view key, T& value) {
    using Number = std::underlying_type_t<T>;
    if (!stream.Has(key)) {
        return false;
    }
    if (!stream.IsText(key)) {
        std::int64_t number = 0;
        const bool read =
            stream.ReadInt(key, number, std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max());
        value = read ? static_cast<T>(number) : value;
        return read;
    }
    ZString name;
    stream.ReadString(key, name);
    if (const auto named = magic_enum::enum_cast<T>(std::string_view(name))) {
        value = *named;
        return true;
    }
    stream.SetError(key, "one of the known names or a number");
    return false;
}

/// Messages of one class need not name it in their documents.
template <typename T>
bool ReadMessageList(ZCommStream& stream, std::string_view key, ZVector<std::shared_ptr<T>>& values) {
    constexpr bool kAnyClass = std::is_same_v<T, ZMessage>;
    ZVector<std::shared_ptr<ZMessage>> messages;
    if (!stream.ReadMessages(key, messages, kAnyClass ? "" : T::kClassName)) {
        return false;
    }
    ZVector<std::shared_ptr<T>> wanted;
    for (const auto& message : messages) {
        auto cast = cast_shared<T>(message);
        if (!cast) {
            stream.SetError(key, std::string("a list of ") + T::kClassName);
            return false;
        }
        wanted.push_back(std::move(cast));
    }
    values = std::move(wanted);
    return true;
}

template <typename T>
bool ReadValue(ZCommStream& stream, std::string_view key, T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        return stream.ReadBool(key, value);
    } else if constexpr (std::is_enum_v<T>) {
        return ReadEnum(stream, key, value);
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        std::int64_t number = 0;
        const bool read = stream.ReadInt(key, number, std::numeric_limits<T>::min(), std::numeric_limits<T>::max());
        value = read ? static_cast<T>(number) : value;
        return read;
    } else if constexpr (std::is_integral_v<T>) {
        std::uint64_t number = 0;
        const bool read = stream.ReadUInt(key, number, std::numeric_limits<T>::max());
        value = read ? static_cast<T>(number) : value;
        return read;
    } else if constexpr (std::is_floating_point_v<T>) {
        double number = 0;
        const bool read = stream.ReadDouble(key, number);
        value = read ? static_cast<T>(number) : value;
        return read;
    } else if constexpr (std::is_same_v<T, ZString>) {
        return stream.ReadString(key, value);
    } else if constexpr (std::is_same_v<T, ZVector<ZString>>) {
        return stream.ReadStrings(key, value);
    } else if constexpr (kIsMessageList<T>) {
        return ReadMessageList(stream, key, value);
    } else {
        return stream.ReadObject(key, value);
    }
}

template <typename Class, typename Fields>
void Write(const Class& object, ZCommStream& stream, const Fields& fields) {
    std::apply([&](const auto&... field) { (WriteValue(stream, field.key, object.*field.member), ...); }, fields);
}

template <typename Class, typename Fields>
void Read(Class& object, ZCommStream& stream, const Fields& fields) {
    std::apply(
        [&](const auto&... field) { (static_cast<void>(ReadValue(stream, field.key, object.*field.member)), ...); },
        fields);
}

/// A deep copy of one member; messages in it are cloned.
template <typename T>
void CopyValue(const T& from, T& to) {
    if constexpr (kIsMessageList<T>) {
        to.clear();
        for (const auto& copy : CloneMessages({from.begin(), from.end()})) {
            to.push_back(std::static_pointer_cast<typename ListedMessage<T>::Type>(copy));
        }
    } else {
        to = from;
    }
}

template <typename T>
ZFieldInfo Describe(std::string_view key, const ZFieldRule& rule) {
    ZFieldInfo info{.key = key, .names = {}, .rule = rule};
    if constexpr (std::is_same_v<T, bool>) {
        info.type = ZFieldType::Bool;
    } else if constexpr (std::is_enum_v<T>) {
        info.type = ZFieldType::Enumeration;
        info.names = magic_enum::enum_names<T>();
    } else if constexpr (std::is_integral_v<T>) {
        info.type = ZFieldType::Integer;
        info.least = static_cast<std::int64_t>(std::numeric_limits<T>::min());
        info.most = static_cast<std::uint64_t>(std::numeric_limits<T>::max());
    } else if constexpr (std::is_floating_point_v<T>) {
        info.type = ZFieldType::Number;
    } else if constexpr (std::is_same_v<T, ZVector<ZString>>) {
        info.type = ZFieldType::TextList;
    } else if constexpr (kIsMessageList<T>) {
        using Listed = typename ListedMessage<T>::Type;
        info.type = ZFieldType::MessageList;
        info.className = std::is_same_v<Listed, ZMessage> ? "" : Listed::kClassName;
    } else if constexpr (!std::is_same_v<T, ZString>) {
        info.type = ZFieldType::Object;
        info.className = T::kClassName;
    }
    return info;
}

template <typename T>
ZFieldValue ValueOf(T& value) {
    if constexpr (std::is_same_v<T, bool>) {
        return value;
    } else if constexpr (std::is_enum_v<T>) {
        return magic_enum::enum_name(value);
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<std::int64_t>(value);
    } else if constexpr (std::is_floating_point_v<T>) {
        return static_cast<double>(value);
    } else if constexpr (std::is_same_v<T, ZString> || std::is_same_v<T, ZVector<ZString>>) {
        return &value;
    } else {
        return std::monostate();
    }
}

template <typename Class, typename Fields>
void Visit(Class& object, const ZFieldVisitor& visitor, const Fields& fields) {
    const auto visitOne = [&]<typename Member>(const ZField<Class, Member>& field) {
        visitor(Describe<Member>(field.key, field.rule), ValueOf(object.*field.member));
    };
    std::apply([&](const auto&... field) { (visitOne(field), ...); }, fields);
}

template <typename Class, typename Fields>
void Copy(const Class& from, Class& to, const Fields& fields) {
    std::apply([&](const auto&... field) { (CopyValue(from.*field.member, to.*field.member), ...); }, fields);
}

}  // namespace ZFields

/// Inside a message class, first: its frame. `Base`'s fields come before its own, on the wire and in the copy.
#define Z_MESSAGE(Class, Base) Z_MESSAGE_AS(Class, Base, Base)

/// As Z_MESSAGE, for a class that shares its fields with `Base` but is no kind of it to others: registered under
/// `RegisteredBase`.
#define Z_MESSAGE_AS(Class, RegisteredBase, Base) \
    Z_CLASS(Class, RegisteredBase)                \
public:                                           \
    using Self = Class;                           \
    using Super = Base;                           \
                                                  \
private:

/// Inside a message class, behind its members: `Z_FIELDS(Z_FIELD(m_A), ...)`, in the order in which they are written.
/// Reading, writing, deep copy, checks and descriptions follow from it.
#define Z_FIELDS(...)                                                   \
    static constexpr auto Fields() {                                    \
        return std::make_tuple(__VA_ARGS__);                            \
    }                                                                   \
    bool Serialize(ZCommStream& stream) const override {                \
        const bool written = Super::Serialize(stream);                  \
        ZFields::Write(*this, stream, Fields());                        \
        return written;                                                 \
    }                                                                   \
    bool Deserialize(ZCommStream& stream) override {                    \
        const bool read = Super::Deserialize(stream);                   \
        ZFields::Read(*this, stream, Fields());                         \
        return read && stream.Error().empty();                          \
    }                                                                   \
    void VisitFields(const ZFieldVisitor& visitor) override {           \
        Super::VisitFields(visitor);                                    \
        ZFields::Visit(*this, visitor, Fields());                       \
    }                                                                   \
    void CloneDataMembers(const ZMessage& from) override {              \
        Super::CloneDataMembers(from);                                  \
        ZFields::Copy(static_cast<const Self&>(from), *this, Fields()); \
    }
/// Behind a message class in a header: registers it, in the one source file of the library that defines Z_REGISTER_HERE
/// before it includes the header.
#ifdef Z_REGISTER_HERE
#define Z_REGISTER(Class) Z_IMPLEMENT(Class)
#else
#define Z_REGISTER(Class)
#endif

/// Inside a message class that adds no field.
#define Z_NO_FIELDS() Z_FIELDS()
