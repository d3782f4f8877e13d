#pragma once

#include <string>
#include <vector>

/// What a person types, looked at before the device is asked. The checks return what is wrong, or nothing.
namespace arborctl {

/// A version as packages tell it: parts with dots between, each beginning with a digit, of letters, digits and -_+~.
std::string WrongVersion(const std::string& text);

/// The name of a device, a board, a model or a host: letters, digits and ._:+-, 64 at most, at least one.
std::string WrongName(const std::string& text);

/// An id of a job, or the beginning of one: 4 to 16 hexadecimal digits.
std::string WrongId(const std::string& text);

/// "2h", "3d" or a date; see SinceFrom.
std::string WrongSince(const std::string& text);

/// The one of `words` that somebody who typed `word` most likely meant; empty when none is near.
std::string Nearest(const std::string& word, const std::vector<std::string>& words);

}  // namespace arborctl
