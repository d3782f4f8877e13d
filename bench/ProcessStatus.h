#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

/// What the kernel tells of a process. Its functions throw std::runtime_error when it does not.
class ProcessStatus {
public:
    explicit ProcessStatus(pid_t process) : m_folder("/proc/" + std::to_string(process)) {}

    double ResidentBytes() const { return Number(m_folder / "status", "VmRSS") * 1024; }
    double Threads() const { return Number(m_folder / "status", "Threads"); }
    /// How often its threads have gone to sleep: once for each time that something woke them.
    double Sleeps() const;
    /// The processor's time that its threads have had.
    double CpuSeconds() const;

private:
    /// The number behind `key` in a status file.
    static double Number(const std::filesystem::path& file, const std::string& key);

    const std::filesystem::path m_folder;
};
