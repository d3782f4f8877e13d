#pragma once

#include <boost/json.hpp>
#include <cstdint>
#include <string>
#include <string_view>

#include "Result.h"

/// Reading of documents that a device sends: a key that is absent or of another type gives the fallback, since a newer
/// or older device may say more or less than this client knows.
namespace arborctl::fields {

/// A text, a number or a flag as text.
std::string Text(const boost::json::value& document, std::string_view key, std::string_view fallback = "");
bool Flag(const boost::json::value& document, std::string_view key, bool fallback = false);
std::int64_t Number(const boost::json::value& document, std::string_view key, std::int64_t fallback = 0);

/// The member itself; null when there is none.
const boost::json::value& Member(const boost::json::value& document, std::string_view key);

/// The elements of a list member; empty when there is none.
const boost::json::array& List(const boost::json::value& document, std::string_view key);

/// Why a message of the device says no, as one sentence for a person: its text, else its error code in words, else
/// `fallback`.
std::string Refusal(const boost::json::value& message, const std::string& fallback);

/// The document in `text`; a failure (usage) names the byte at which it goes wrong.
Result<boost::json::value> Parse(std::string_view text);

/// The document on several indented lines, for reading.
std::string Pretty(const boost::json::value& document);

}  // namespace arborctl::fields
