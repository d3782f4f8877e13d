#include "StrictJson.h"

#include <algorithm>
#include <boost/json.hpp>

#include "text/Base64.h"

namespace json = boost::json;

namespace ztrust {

namespace {

constexpr std::size_t kDigestDigits = 64;

bool IsDigit(char letter) {
    return letter >= '0' && letter <= '9';
}

bool IsLetterOrDigit(char letter) {
    return IsDigit(letter) || (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z');
}

std::string Quoted(const char* key) {
    return "\"" + std::string(key) + "\"";
}

}  // namespace

std::optional<json::value> ParseObject(std::string_view text) {
    const bool isPlain = text.starts_with('{') && text.ends_with('}') && IsAscii(text);
    boost::system::error_code error;
    json::value value = isPlain ? json::parse(text, error) : json::value();
    if (!isPlain || error) {
        return std::nullopt;
    }
    return value;
}

bool IsVersion(std::string_view text) {
    std::size_t numbers = 1;
    std::size_t digits = 0;
    for (const char letter : text) {
        if (IsDigit(letter)) {
            ++digits;
        } else if (letter == '.' && digits > 0) {
            ++numbers;
            digits = 0;
        } else {
            return false;
        }
        if (digits > 9 || numbers > 8) {
            return false;
        }
    }
    return digits > 0;
}

bool IsBoard(std::string_view text) {
    return !text.empty() && text.size() <= 64 && IsLetterOrDigit(text.front()) &&
           std::ranges::all_of(text, [](char letter) {
               return IsLetterOrDigit(letter) || letter == '.' || letter == '_' || letter == '-';
           });
}

bool IsAscii(std::string_view text) {
    return std::ranges::all_of(text, [](char letter) { return static_cast<unsigned char>(letter) < 0x80; });
}

bool IsDigest(std::string_view text) {
    return text.size() == kDigestDigits &&
           std::ranges::all_of(text, [](char letter) { return IsDigit(letter) || (letter >= 'a' && letter <= 'f'); });
}

std::string TextOf(const json::value& value, const std::string& name) {
    if (!value.is_string()) {
        throw Fault{name + " is no text"};
    }
    return std::string(value.get_string());
}

Members::Members(const json::value& value, std::string name) : m_name(std::move(name)) {
    if (!value.is_object()) {
        throw Fault{m_name + " is no object"};
    }
    m_object = &value.get_object();
}

const json::value* Members::Optional(const char* key) {
    const json::value* const value = m_object->if_contains(key);
    m_taken += value != nullptr ? 1 : 0;
    return value;
}

const json::value& Members::Take(const char* key) {
    const json::value* const value = Optional(key);
    if (value == nullptr) {
        throw Fault{m_name + " lacks " + Quoted(key)};
    }
    return *value;
}

std::string Members::Text(const char* key) {
    return TextOf(Take(key), Quoted(key));
}

std::string Members::Text(const char* key, bool (*isRight)(std::string_view)) {
    std::string text = Text(key);
    if (!isRight(text)) {
        throw Fault{Quoted(key) + " is not as it must be"};
    }
    return text;
}

std::uint64_t Members::Number(const char* key, std::uint64_t least, std::uint64_t most) {
    const json::value& value = Take(key);
    const bool isWhole = value.is_uint64() || (value.is_int64() && value.get_int64() >= 0);
    const std::uint64_t number = isWhole ? value.to_number<std::uint64_t>() : 0;
    if (!isWhole || number < least || number > most) {
        throw Fault{Quoted(key) + " is no whole number from " + std::to_string(least) + " to " + std::to_string(most)};
    }
    return number;
}

const json::array& Members::List(const char* key, std::size_t least, std::size_t most) {
    const json::value& value = Take(key);
    if (!value.is_array() || value.get_array().size() < least || value.get_array().size() > most) {
        throw Fault{Quoted(key) + " is no list of " + std::to_string(least) + " to " + std::to_string(most)};
    }
    return value.get_array();
}

std::string Members::Bytes(const char* key, std::size_t most) {
    std::vector<char> bytes;
    if (!text::DecodeBase64(Text(key), bytes) || bytes.empty() || bytes.size() > most) {
        throw Fault{Quoted(key) + " is no base64 of at most " + std::to_string(most) + " bytes"};
    }
    return {bytes.begin(), bytes.end()};
}

void Members::End() const {
    if (m_taken != m_object->size()) {
        throw Fault{m_name + " holds members that are not known"};
    }
}

}  // namespace ztrust
