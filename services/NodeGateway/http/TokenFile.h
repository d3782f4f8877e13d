#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "ZShared/ZError.h"
#include "http/Peer.h"

namespace gateway {

/// Who may ask over the network: a file with lines "NAME ROLE TOKEN", of which only digests stay in memory.
class TokenFile {
public:
    /// An error names the file, and the line.
    static ZResult<TokenFile> Read(const std::string& path);

    /// Whose secret it is; null: nobody's. Takes as long for every secret of a length.
    const Token* Find(std::string_view secret) const;

private:
    using Digest = std::array<unsigned char, 32>;
    struct Entry {
        Token token;
        Digest digest{};
    };
    static Digest DigestOf(std::string_view secret);
    ZResult<void> Add(std::string_view line);

    std::vector<Entry> m_entries;
};

}  // namespace gateway
