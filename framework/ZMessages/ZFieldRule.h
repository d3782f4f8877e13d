#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <variant>

#include "ZShared/ZAllocator.h"

/// What the value of a field must be, as a test and in words, and what it means. Made while compiling, as a part of the
/// field's row; texts are literals.
struct ZFieldRule {
    enum class Kind : std::uint8_t { Any, Range, Text, Path };

    Kind kind = Kind::Any;
    bool bMayBeEmpty = false;  ///< an empty text or path is as good as a fitting one
    std::int64_t least = 0;    ///< Range: the bounds, both allowed
    std::int64_t most = 0;
    bool (*fits)(std::string_view) = nullptr;  ///< Text, Path: of a text, or of each text in a list
    const char* wanted = "";                   ///< behind "it must be "
    const char* pattern = "";                  ///< the same as a regular expression (ECMA 262), as far as there is one
    const char* meaning = "";                  ///< for people, a sentence or two
    const char* example = "";                  ///< as JSON
};

/// How a field's value travels.
enum class ZFieldType : std::uint8_t { Bool, Integer, Number, Text, TextList, Enumeration, Object, MessageList };

/// A field, as descriptions and checks need it. Valid while the visitor runs; the texts for as long as their library is
/// loaded.
struct ZFieldInfo {
    std::string_view key;
    ZFieldType type = ZFieldType::Text;
    std::int64_t least = 0;  ///< Integer: what the type can hold
    std::uint64_t most = 0;
    std::span<const std::string_view> names;  ///< Enumeration: the enumerators
    const char* className = "";               ///< Object, MessageList: of what; empty for messages of any class
    const ZFieldRule& rule;
};

/// A field's value: texts in place, so that a visitor may resolve a path; an enumerator by its name; nothing for
/// objects and messages.
using ZFieldValue =
    std::variant<std::monostate, bool, std::int64_t, double, std::string_view, ZString*, ZVector<ZString>*>;

/// Is shown every field of a message or record, those of its base first.
using ZFieldVisitor = std::function<void(const ZFieldInfo&, const ZFieldValue&)>;
