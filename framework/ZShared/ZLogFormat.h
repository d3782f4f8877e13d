#pragma once

#include <concepts>
#include <magic_enum/magic_enum.hpp>
#include <string>
#include <string_view>
#include <type_traits>

/// A text of a kind that knows its end: std::string, ZString, std::filesystem::path.
template <typename T>
concept ZHasCString = requires(const T& text) {
    { text.c_str() } -> std::same_as<const char*>;
};

/// How a value is handed to printf: texts and paths as they stand, enumerators by name (an empty one for a value
/// without a name), numbers as they are.
template <typename T>
class ZLogArgument {
public:
    explicit ZLogArgument(const T& value) : m_value(value) {}
    auto Get() const {
        if constexpr (ZHasCString<T>) {
            return m_value.c_str();
        } else {
            return m_value;
        }
    }

private:
    const T& m_value;
};
template <typename T>
requires std::is_enum_v<T> || std::same_as<T, std::string_view>
class ZLogArgument<T> {
public:
    explicit ZLogArgument(T value) : m_text(TextOf(value)) {}
    const char* Get() const { return m_text.c_str(); }

private:
    static std::string TextOf(T value) {
        if constexpr (std::is_enum_v<T>) {
            return std::string(magic_enum::enum_name(value));
        } else {
            return std::string(value);
        }
    }
    const std::string m_text;
};

namespace ZLogFormats {

/// What printf would make of a wrong argument is not defined: this ends the compilation instead, with its own name.
void ArgumentDoesNotFitTheLogFormat();

/// Whether an argument of type T may stand for a conversion: `length` counts its letters l, z and j.
template <typename T>
constexpr bool Fits(char conversion, bool isLong) {
    using Value = std::remove_cvref_t<T>;
    constexpr bool kText = ZHasCString<Value> || std::is_enum_v<Value> || std::same_as<Value, std::string_view> ||
                           std::is_convertible_v<Value, const char*>;
    if constexpr (kText) {
        return conversion == 's';
    } else if constexpr (std::is_floating_point_v<Value>) {
        return conversion == 'f' || conversion == 'g';
    } else if constexpr (std::is_integral_v<Value>) {
        constexpr bool kSigned = std::is_signed_v<Value> || std::same_as<Value, bool>;
        return (conversion == 'd' ? kSigned : !kSigned && (conversion == 'u' || conversion == 'x')) &&
               isLong == (sizeof(Value) > sizeof(int));
    }
    return false;
}

/// The conversion at the front of `text`, behind its percent sign, which is taken off; NUL for "%%".
constexpr char TakeConversion(std::string_view& text, bool& isLong) {
    isLong = false;
    for (; !text.empty(); text.remove_prefix(1)) {
        const char c = text.front();
        if (c == 'l' || c == 'z' || c == 'j') {
            isLong = true;
        } else if (std::string_view("0123456789.-+# h").find(c) == std::string_view::npos) {
            text.remove_prefix(1);
            return c == '%' ? '\0' : c;
        }
    }
    return '?';
}

constexpr std::string_view NextConversion(std::string_view text, char& conversion, bool& isLong) {
    for (conversion = '\0'; conversion == '\0' && !text.empty();) {
        const std::size_t percent = text.find('%');
        text.remove_prefix(percent == std::string_view::npos ? text.size() : percent + 1);
        conversion = percent == std::string_view::npos ? '\0' : TakeConversion(text, isLong);
    }
    return text;
}

}  // namespace ZLogFormats

/// A printf format that was compared with the types of its arguments while compiling.
template <typename... Arguments>
class ZLogFormat {
public:
    // NOLINTNEXTLINE(google-explicit-constructor): a format is written as the text that it is
    consteval ZLogFormat(const char* text) : m_text(text) {
        std::string_view rest(text);
        char conversion = '\0';
        bool isLong = false;
        const bool fit = ((rest = ZLogFormats::NextConversion(rest, conversion, isLong),
                           ZLogFormats::Fits<Arguments>(conversion, isLong)) &&
                          ...);
        ZLogFormats::NextConversion(rest, conversion, isLong);
        if (!fit || conversion != '\0') {
            ZLogFormats::ArgumentDoesNotFitTheLogFormat();
        }
    }
    const char* Text() const { return m_text; }

private:
    const char* m_text;
};
