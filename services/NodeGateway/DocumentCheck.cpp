#include "DocumentCheck.h"

#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/string.hpp>

namespace json = boost::json;

namespace gateway {

namespace {

constexpr std::size_t kMostValues = 1024;  // far more than any request has
constexpr std::size_t kDeepest = 32;

/// Counts what a document holds, and keeps nothing of it.
class ValueCounter {
public:
    static constexpr std::size_t max_object_size = kMostValues;
    static constexpr std::size_t max_array_size = kMostValues;
    static constexpr std::size_t max_key_size = json::string::max_size();
    static constexpr std::size_t max_string_size = json::string::max_size();

    using Code = json::error_code;
    using Text = json::string_view;
    static bool on_document_begin(Code&) { return true; }
    static bool on_document_end(Code&) { return true; }
    bool on_object_begin(Code& code) { return Count(code); }
    static bool on_object_end(std::size_t, Code&) { return true; }
    bool on_array_begin(Code& code) { return Count(code); }
    static bool on_array_end(std::size_t, Code&) { return true; }
    static bool on_key_part(Text, std::size_t, Code&) { return true; }
    static bool on_key(Text, std::size_t, Code&) { return true; }
    static bool on_string_part(Text, std::size_t, Code&) { return true; }
    bool on_string(Text, std::size_t, Code& code) { return Count(code); }
    static bool on_number_part(Text, Code&) { return true; }
    bool on_int64(std::int64_t, Text, Code& code) { return Count(code); }
    bool on_uint64(std::uint64_t, Text, Code& code) { return Count(code); }
    bool on_double(double, Text, Code& code) { return Count(code); }
    bool on_bool(bool, Code& code) { return Count(code); }
    bool on_null(Code& code) { return Count(code); }
    static bool on_comment_part(Text, Code&) { return true; }
    static bool on_comment(Text, Code&) { return true; }

    bool IsFull() const { return m_count > kMostValues; }

private:
    bool Count(Code& code) {
        if (++m_count > kMostValues) {
            code = json::error::array_too_large;
        }
        return !IsFull();
    }
    std::size_t m_count = 0;
};

}  // namespace

ZResult<void> CheckDocument(std::string_view text) {
    json::parse_options options;
    options.max_depth = kDeepest;
    json::basic_parser<ValueCounter> parser(options);
    json::error_code code;
    const std::size_t used = parser.write_some(false, text.data(), text.size(), code);
    if (parser.handler().IsFull()) {
        return ZError("The text holds more than " + std::to_string(kMostValues) + " values");
    }
    if (code) {
        return ZError("The text is not whole JSON: " + code.message());
    }
    if (text.find_first_not_of(" \t\r\n", used) != std::string_view::npos) {
        return ZError("The text goes on behind its JSON document");
    }
    return {};
}

}  // namespace gateway
