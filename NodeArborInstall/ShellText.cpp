#include "ShellText.h"

#include <arpa/inet.h>

#include <algorithm>

bool IsPlainShellWord(std::string_view text, bool mayBeEmpty) {
    constexpr std::string_view kPlain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:+,=@%";
    return (mayBeEmpty || !text.empty()) && text.find_first_not_of(kPlain) == std::string_view::npos;
}

bool IsIPv4Address(const std::string& text) {
    in_addr address{};
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

std::string WithoutTrailingSpace(std::string text) {
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    return text;
}
