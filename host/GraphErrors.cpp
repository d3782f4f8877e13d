#include "GraphErrors.h"

GraphPlace GraphPlace::Member(const std::string& key) const {
    return {m_path + '/' + key, m_label.empty() ? key : m_label + '.' + key};
}

GraphPlace GraphPlace::Element(std::size_t index) const {
    const std::string number = std::to_string(index);
    return {m_path + '/' + number, m_label + '[' + number + ']'};
}

void GraphErrors::AddToFile(const std::string& text) {
    m_all.push_back(m_file.string() + ": " + text);
}

void GraphErrors::AddToLine(int line, const std::string& text) {
    m_all.push_back(m_file.string() + ':' + std::to_string(line) + ": " + text);
}

void GraphErrors::Add(const GraphPlace& place, const std::string& text) {
    AddToLine(m_lines.LineOf(place.Path()), (place.Label().empty() ? "" : place.Label() + ": ") + text);
}

void GraphErrors::Add(const GraphPlace& place, const std::string& key, const std::string& text) {
    AddToLine(m_lines.LineOf(place.Member(key).Path()), (place.Label().empty() ? "" : place.Label() + ": ") + text);
}
