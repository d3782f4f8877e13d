#include "ShellText.h"

#include <arpa/inet.h>

#include <algorithm>

std::string ShellQuoted(std::string_view text) {
    std::string quoted = "'";
    for (const char letter : text) {
        if (letter == '\'') {
            quoted += "'\\''";
        } else {
            quoted += letter;
        }
    }
    return quoted + "'";
}

bool IsPlainShellWord(std::string_view text, bool mayBeEmpty) {
    constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:+,=@%";
    return (mayBeEmpty || !text.empty()) && text.find_first_not_of(kPlain) == std::string_view::npos;
}

bool IsIPv4Address(const std::string& text) {
    in_addr address{};
    return text.find('\0') == std::string::npos && ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

std::string WithoutTrailingSpace(std::string text) {
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    return text;
}

std::optional<std::string> FirstGroupIn(const std::string& line, const std::regex& pattern) {
    std::smatch match;
    if (!std::regex_search(line, match, pattern) || !match[1].matched) {
        return std::nullopt;
    }
    return match[1].str();
}
