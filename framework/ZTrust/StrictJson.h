#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// JSON as packages and trust documents carry it: what one reader takes for an object, every other one must take for
/// the same object. docs/package-format.md says what counts.
namespace ztrust {

/// What is wrong with a text; thrown from one row to the function that reads the whole.
struct Fault {
    std::string text;
};

/// One object in ASCII, without anything around it; others would read bytes beyond these in their own ways.
std::optional<boost::json::value> ParseObject(std::string_view text);

/// Up to eight numbers of up to nine digits, separated by dots.
bool IsVersion(std::string_view text);
bool IsBoard(std::string_view text);
bool IsAscii(std::string_view text);
/// 64 hexadecimal digits, letters small.
bool IsDigest(std::string_view text);

/// `value` as a text; Fault, which calls it `name`, when it is none.
std::string TextOf(const boost::json::value& value, const std::string& name);

/// An object whose members are taken one by one, each once; what is left over is a fault. Every function throws Fault,
/// which names the member.
class Members {
public:
    Members(const boost::json::value& value, std::string name);

    /// nullptr when it is not there.
    const boost::json::value* Optional(const char* key);
    const boost::json::value& Take(const char* key);
    std::string Text(const char* key);
    std::string Text(const char* key, bool (*isRight)(std::string_view));
    std::uint64_t Number(const char* key, std::uint64_t least, std::uint64_t most);
    const boost::json::array& List(const char* key, std::size_t least, std::size_t most);
    /// What a text of base64 stands for: 1 to `most` bytes.
    std::string Bytes(const char* key, std::size_t most);
    void End() const;

private:
    std::string m_name;
    const boost::json::object* m_object = nullptr;
    std::size_t m_taken = 0;
};

}  // namespace ztrust
