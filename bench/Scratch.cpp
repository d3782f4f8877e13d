#include "Scratch.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

Scratch::Scratch() {
    std::string name = (fs::temp_directory_path() / "arbor-bench-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    m_path = name;
}

Scratch::~Scratch() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

fs::path Scratch::Write(const std::string& name, const std::string& content, bool executable) const {
    fs::path file = m_path / name;
    fs::create_directories(file.parent_path());
    std::ofstream output(file, std::ios::binary);
    output << content;
    output.close();
    if (!output) {
        throw std::system_error(errno, std::generic_category(), file.string());
    }
    fs::permissions(file, executable ? fs::perms::owner_all : fs::perms::owner_read | fs::perms::owner_write);
    return file;
}
