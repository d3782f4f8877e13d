#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

/// Where each key and list element of a JSON text stands. Paths are written "/nodes/0/config".
class GraphLines {
public:
    GraphLines() = default;
    /// `text` must be one whole JSON document.
    explicit GraphLines(std::string_view text);

    /// The line, from 1 on, of the path, or of the nearest one above it that the text has.
    int LineOf(std::string path) const;
    /// Paths of the keys that stand twice in one object, of which readers see only one.
    const std::vector<std::string>& Repeated() const { return m_repeated; }

    /// The line, from 1 on, that the position is in.
    static int LineAt(std::string_view text, std::size_t position);

private:
    void TakeValue(std::string_view& rest, const std::string& path);
    void TakeMembers(std::string_view& rest, const std::string& path);
    void TakeElements(std::string_view& rest, const std::string& path);
    void SkipBlanks(std::string_view& rest);

    std::map<std::string, int> m_lines;
    std::vector<std::string> m_repeated;
    int m_line = 1;  // of the front of what is still to be taken
};
