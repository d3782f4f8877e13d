#pragma once

#include <filesystem>

#include "ZShared/ZAllocator.h"

/// Variables that may stand in configured paths: the ones set here, then those of the process.
class ZEnvironment {
public:
    void Set(const ZString& name, const ZString& value);

    /// Replaces every $NAME and ${NAME} in `in`; "$$" is a dollar sign. False, with `out` empty, when a variable is not
    /// set or a brace is not closed.
    bool ResolveEnvVarsInPath(const std::filesystem::path& in, std::filesystem::path& out) const;

private:
    bool Lookup(const ZString& name, std::string& value) const;
    ZMap<ZString, ZString> m_variables;
};
