#include "ProcessStatus.h"

#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

double ProcessStatus::Number(const fs::path& file, const std::string& key) {
    std::ifstream input(file);
    for (std::string line; std::getline(input, line);) {
        if (line.starts_with(key + ':')) {
            return std::stod(line.substr(key.size() + 1));
        }
    }
    throw std::runtime_error(file.string() + " has no " + key);
}

double ProcessStatus::Sleeps() const {
    double sleeps = 0;
    for (const fs::directory_entry& thread : fs::directory_iterator(m_folder / "task")) {
        sleeps += Number(thread.path() / "status", "voluntary_ctxt_switches");
    }
    return sleeps;
}

double ProcessStatus::CpuSeconds() const {
    double seconds = 0;
    for (const fs::directory_entry& thread : fs::directory_iterator(m_folder / "task")) {
        double nanoseconds = 0;
        if (!(std::ifstream(thread.path() / "schedstat") >> nanoseconds)) {
            throw std::runtime_error(thread.path().string() + " has no schedstat");
        }
        seconds += nanoseconds / 1e9;
    }
    return seconds;
}
