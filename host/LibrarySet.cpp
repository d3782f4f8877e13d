#include "LibrarySet.h"

#include <dlfcn.h>

#include <array>
#include <set>

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

/// The folders that libraries are looked for in.
std::vector<std::filesystem::path> Folders() {
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::vector<std::filesystem::path> folders;
    folders.reserve(kFolders.size());
    for (const char* folder : kFolders) {
        folders.push_back((program / folder).lexically_normal());
    }
    return folders;
}

ZResult<std::filesystem::path> Find(const std::string& name) {
    std::string searched;
    for (const std::filesystem::path& folder : Folders()) {
        std::error_code code;
        if (std::filesystem::exists(folder / name, code)) {
            return folder / name;
        }
        searched += (searched.empty() ? "" : ", ") + folder.string();
    }
    return ZError('"' + name + "\" is in none of " + searched);
}

}  // namespace

LibrarySet::~LibrarySet() {
    for (; kUnload && !m_handles.empty(); m_handles.pop_back()) {
        ::dlclose(m_handles.back());
    }
}

ZResult<void> LibrarySet::Load(const std::string& nameOrPath, const std::filesystem::path& base) {
    const bool isPath = nameOrPath.find('/') != std::string::npos;
    const auto path = isPath ? ZResult<std::filesystem::path>(base / nameOrPath) : Find(nameOrPath);
    if (!path) {
        return path.error();
    }
    void* handle = ::dlopen(path->c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        const char* reason = ::dlerror();
        return ZError('"' + nameOrPath + "\" can't be loaded: " + (reason == nullptr ? "no reason given" : reason));
    }
    m_handles.push_back(handle);
    return {};
}

ZResult<void> LibrarySet::LoadAll() {
    std::set<std::string> names;
    for (const std::filesystem::path& folder : Folders()) {
        std::error_code code;
        for (std::filesystem::directory_iterator entry(folder, code), end; !code && entry != end;
             entry.increment(code)) {
            const std::string name = entry->path().filename().string();
            if (name.starts_with("libNode") && name.ends_with(".so")) {
                names.insert(name);
            }
        }
    }
    for (const std::string& name : names) {
        if (auto loaded = Load(name, {}); !loaded) {
            return loaded;
        }
    }
    return {};
}
