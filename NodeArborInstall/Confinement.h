#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

/// A command that runs apart from the system, by bubblewrap: no network, no other processes, nothing of the files but
/// programs and libraries, nowhere to write but a small folder, no privileges and no way to get some. Memory, processes
/// and processor time are bounded, and all of it ends with the command.
class Confinement {
public:
    Confinement();

    /// The folder can be read there, at its own path.
    void Show(const std::filesystem::path& folder);
    /// What the descriptor gives becomes an executable file at that path.
    void Put(const std::filesystem::path& file, int descriptor);
    void Set(const std::string& variable, const std::string& value);

    /// The shell command line that runs the command, whose processor time is below `limit`. It opens descriptor 7.
    std::string CommandLine(const std::vector<std::string>& command, std::chrono::seconds limit) const;

private:
    void Append(std::initializer_list<const char*> further);
    void MakeFolders(const std::filesystem::path& folder);

    std::vector<std::string> m_words;
};
