#include "ZCoreConfigs/ZEnvironment.h"

#include <cstdlib>

namespace {

bool IsNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/// The name behind a dollar sign at `at`, which is moved to the character after it; empty when there is none.
ZString TakeName(const std::string& text, std::size_t& at) {
    if (at < text.size() && text[at] == '{') {
        const std::size_t close = text.find('}', at);
        if (close == std::string::npos) {
            return {};
        }
        ZString name = ToZString(std::string_view(text).substr(at + 1, close - at - 1));
        at = close + 1;
        return name;
    }
    const std::size_t start = at;
    while (at < text.size() && IsNameCharacter(text[at])) {
        ++at;
    }
    return ToZString(std::string_view(text).substr(start, at - start));
}

}  // namespace

void ZEnvironment::Set(const ZString& name, const ZString& value) {
    m_variables[name] = value;
}

bool ZEnvironment::Lookup(const ZString& name, std::string& value) const {
    if (const auto found = m_variables.find(name); found != m_variables.end()) {
        value = ToStdString(found->second);
        return true;
    }
    const char* inherited = name.empty() ? nullptr : std::getenv(name.c_str());
    if (inherited == nullptr) {
        return false;
    }
    value = inherited;
    return true;
}

bool ZEnvironment::ResolveEnvVarsInPath(const std::filesystem::path& in, std::filesystem::path& out) const {
    out.clear();
    const std::string text = in.string();
    std::string resolved;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] != '$') {
            resolved += text[at++];
            continue;
        }
        ++at;
        if (at < text.size() && text[at] == '$') {
            resolved += text[at++];
            continue;
        }
        std::string value;
        if (!Lookup(TakeName(text, at), value)) {
            return false;
        }
        resolved += value;
    }
    out = resolved;
    return true;
}
