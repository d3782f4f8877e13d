#include "GraphLines.h"

#include <algorithm>

namespace {

/// The string at the front, without its quotes and with its escapes as they are.
std::string TakeString(std::string_view& rest) {
    std::size_t end = 1;
    while (rest[end] != '"') {
        end += rest[end] == '\\' ? 2 : 1;
    }
    std::string text(rest.substr(1, end - 1));
    rest.remove_prefix(end + 1);
    return text;
}

}  // namespace

GraphLines::GraphLines(std::string_view text) {
    TakeValue(text, "");
}

int GraphLines::LineOf(std::string path) const {
    for (;;) {
        if (const auto found = m_lines.find(path); found != m_lines.end()) {
            return found->second;
        }
        if (path.empty()) {
            return 1;
        }
        path.resize(path.find_last_of('/'));
    }
}

int GraphLines::LineAt(std::string_view text, std::size_t position) {
    return 1 + static_cast<int>(std::ranges::count(text.substr(0, position), '\n'));
}

void GraphLines::SkipBlanks(std::string_view& rest) {
    const std::size_t blanks = std::min(rest.find_first_not_of(" \t\r\n"), rest.size());
    m_line += static_cast<int>(std::ranges::count(rest.substr(0, blanks), '\n'));
    rest.remove_prefix(blanks);
}

void GraphLines::TakeValue(std::string_view& rest, const std::string& path) {
    SkipBlanks(rest);
    const char first = rest.front();
    if (first == '{') {
        TakeMembers(rest, path);
    } else if (first == '[') {
        TakeElements(rest, path);
    } else if (first == '"') {
        TakeString(rest);
    } else {
        rest.remove_prefix(std::min(rest.find_first_of(",]} \t\r\n"), rest.size()));
    }
}

void GraphLines::TakeMembers(std::string_view& rest, const std::string& path) {
    do {
        rest.remove_prefix(1);  // the brace, or the comma
        SkipBlanks(rest);
        if (rest.front() == '}') {
            break;
        }
        const int line = m_line;
        const std::string member = path + '/' + TakeString(rest);
        if (!m_lines.emplace(member, line).second) {
            m_repeated.push_back(member);
            m_lines[member] = line;
        }
        SkipBlanks(rest);
        rest.remove_prefix(1);  // the colon
        TakeValue(rest, member);
        SkipBlanks(rest);
    } while (rest.front() == ',');
    rest.remove_prefix(1);
}

void GraphLines::TakeElements(std::string_view& rest, const std::string& path) {
    for (int index = 0;; ++index) {
        rest.remove_prefix(1);  // the bracket, or the comma
        SkipBlanks(rest);
        if (rest.front() == ']') {
            break;
        }
        const std::string element = path + '/' + std::to_string(index);
        m_lines[element] = m_line;
        TakeValue(rest, element);
        SkipBlanks(rest);
        if (rest.front() == ']') {
            break;
        }
    }
    rest.remove_prefix(1);
}
