#pragma once

#include <filesystem>

#include "GraphLines.h"

/// A place in a graph file: what the line index and a reader of messages call it.
class GraphPlace {
public:
    GraphPlace() = default;
    GraphPlace Member(const std::string& key) const;
    GraphPlace Element(std::size_t index) const;

    const std::string& Path() const { return m_path; }    ///< "/nodes/2/config"
    const std::string& Label() const { return m_label; }  ///< "nodes[2].config"; empty for the whole file

private:
    GraphPlace(std::string path, std::string label) : m_path(std::move(path)), m_label(std::move(label)) {}
    std::string m_path;
    std::string m_label;
};

/// Everything that is wrong with one graph file, each as "FILE:LINE: PLACE: what".
class GraphErrors {
public:
    explicit GraphErrors(std::filesystem::path file) : m_file(std::move(file)) {}

    void SetLines(GraphLines lines) { m_lines = std::move(lines); }
    /// About the file as a whole, or one of its lines.
    void AddToFile(const std::string& text);
    void AddToLine(int line, const std::string& text);
    /// About a place. `key`, if given, is the member of it whose line is meant; `text` then names it.
    void Add(const GraphPlace& place, const std::string& text);
    void Add(const GraphPlace& place, const std::string& key, const std::string& text);

    const std::filesystem::path& File() const { return m_file; }
    const std::vector<std::string>& All() const { return m_all; }
    bool IsEmpty() const { return m_all.empty(); }

private:
    std::filesystem::path m_file;
    GraphLines m_lines;
    std::vector<std::string> m_all;
};
