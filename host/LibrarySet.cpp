#include "LibrarySet.h"

#include <dlfcn.h>

#include <array>

namespace {

// A sanitizer reports when the process ends, and needs the libraries then to name functions.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kUnload = false;
#elif defined(__has_feature)
constexpr bool kUnload = !(__has_feature(address_sanitizer) || __has_feature(thread_sanitizer));
#else
constexpr bool kUnload = true;
#endif

// Seen from the program's own folder: installed, and as built.
constexpr std::array kFolders{"../lib/arbor", "../lib", ARBORD_LIBRARY_FOLDER};

std::filesystem::path Find(const std::string& name, std::string& searched) {
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    for (const char* folder : kFolders) {
        std::filesystem::path candidate = (program / folder / name).lexically_normal();
        std::error_code code;
        if (std::filesystem::exists(candidate, code)) {
            return candidate;
        }
        searched += (searched.empty() ? "" : ", ") + candidate.parent_path().string();
    }
    return {};
}

}  // namespace

LibrarySet::~LibrarySet() {
    for (; kUnload && !m_handles.empty(); m_handles.pop_back()) {
        ::dlclose(m_handles.back());
    }
}

bool LibrarySet::Load(const std::string& nameOrPath, const std::filesystem::path& base, std::string& error) {
    std::string searched;
    const bool isPath = nameOrPath.find('/') != std::string::npos;
    const std::filesystem::path path = isPath ? base / nameOrPath : Find(nameOrPath, searched);
    if (path.empty()) {
        error = '"' + nameOrPath + "\" is in none of " + searched;
        return false;
    }
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* reason = ::dlerror();
        error = '"' + nameOrPath + "\" can't be loaded: " + (reason == nullptr ? "no reason given" : reason);
        return false;
    }
    m_handles.push_back(handle);
    return true;
}
