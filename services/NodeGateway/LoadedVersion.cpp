#include "LoadedVersion.h"

#include <dlfcn.h>
#include <link.h>

#include <vector>

namespace gateway {

namespace {

using TextFunction = const char* (*)();

std::optional<std::string> TextFrom(void* library, const char* function) {
    const auto call = reinterpret_cast<TextFunction>(::dlsym(library, function));
    const char* text = call == nullptr ? nullptr : call();
    return text == nullptr ? std::nullopt : std::optional<std::string>(text);
}

std::vector<std::string> LoadedLibraries() {
    std::vector<std::string> names;
    ::dl_iterate_phdr(
        [](dl_phdr_info* library, size_t, void* list) {
            static_cast<std::vector<std::string>*>(list)->emplace_back(library->dlpi_name);
            return 0;
        },
        &names);
    return names;
}

}  // namespace

std::optional<std::string> LoadedText(const char* function) {
    std::optional<std::string> text = TextFrom(RTLD_DEFAULT, function);
    // A library that a graph loads keeps its symbols to itself, so each is asked by its own handle.
    for (const std::string& name : text ? std::vector<std::string>() : LoadedLibraries()) {
        void* const library = name.empty() ? nullptr : ::dlopen(name.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (library == nullptr) {
            continue;
        }
        text = TextFrom(library, function);
        ::dlclose(library);
        if (text) {
            break;
        }
    }
    return text;
}

}  // namespace gateway
