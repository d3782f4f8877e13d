#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

/// Cuts what arrives into lines; a line that never ends is handed on in pieces of a bounded length. A carriage return
/// ends a line too, and stays in it; empty lines are left out.
class ZLineSplitter {
public:
    static constexpr std::size_t kLongest = std::size_t{64} * 1024;

    /// `onLine` may be empty.
    explicit ZLineSplitter(std::function<void(const std::string&)> onLine) : m_onLine(std::move(onLine)) {}

    void Add(std::string_view data) {
        for (const char c : data) {
            if (c == '\n') {
                Finish();
                continue;
            }
            m_line += c;
            if (c == '\r' || m_line.size() >= kLongest) {
                Finish();
            }
        }
    }
    /// What is there is a line.
    void Finish() {
        if (!m_line.empty() && m_onLine) {
            m_onLine(m_line);
        }
        m_line.clear();
    }

private:
    const std::function<void(const std::string&)> m_onLine;
    std::string m_line;
};
