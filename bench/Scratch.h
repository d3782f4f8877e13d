#pragma once

#include <filesystem>
#include <string>

/// A folder of its own among the temporary files, removed with all it holds. Throws when it can't be made or written.
class Scratch {
public:
    Scratch();
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::filesystem::path& Path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }
    /// Writes a file below the folder, making its directories; returns its path.
    std::filesystem::path Write(const std::string& name, const std::string& content, bool executable = false) const;

private:
    std::filesystem::path m_path;
};
