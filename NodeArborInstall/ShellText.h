#pragma once

#include <optional>
#include <regex>
#include <string>
#include <string_view>

/// The text in single quotes for a POSIX shell.
std::string ShellQuoted(std::string_view text);

/// Whether a text can stand unquoted in a shell command line and be read as one word, unchanged: letters, digits and
/// `_ - . / : + , = @ %` only. An empty text is not one word, but does no harm; `mayBeEmpty` decides.
bool IsPlainShellWord(std::string_view text, bool mayBeEmpty = false);

/// Whether the text is one IPv4 address in dotted form and nothing else.
bool IsIPv4Address(const std::string& text);

/// The text without white space at its end.
std::string WithoutTrailingSpace(std::string text);

/// What the pattern's first group finds in a line of a command's output; none when it finds nothing.
std::optional<std::string> FirstGroupIn(const std::string& line, const std::regex& pattern);

/// Finds the percentage in what the copying of a package prints.
constexpr const char* kProgressPattern = "([0-9]{1,3})%";
