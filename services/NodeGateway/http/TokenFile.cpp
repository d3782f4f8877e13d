#include "http/TokenFile.h"

#include <openssl/crypto.h>
#include <openssl/sha.h>

#include <algorithm>
#include <optional>

#include "ZShared/ZScopeEnd.h"
#include "http/SecretFile.h"

namespace gateway {

namespace {

constexpr std::size_t kMostTokens = 64;
constexpr std::size_t kLongestName = 64;
constexpr std::size_t kShortestSecret = 32;
constexpr std::size_t kLongestSecret = 512;
constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr std::string_view kBlanks = " \t\r";

/// Takes the next word off `line`; empty at its end.
std::string_view NextWord(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(kBlanks));
    line.remove_prefix(word.size());
    return word;
}

bool IsMadeOfLetters(std::string_view text) {
    return text.find_first_not_of(kLetters) == std::string_view::npos;
}

std::optional<Role> RoleOf(std::string_view name) {
    for (const Role role : {Role::Look, Role::Operate, Role::Administer}) {
        if (name == RoleName(role)) {
            return role;
        }
    }
    return std::nullopt;
}

}  // namespace

TokenFile::Digest TokenFile::DigestOf(std::string_view secret) {
    Digest digest{};
    ::SHA256(reinterpret_cast<const unsigned char*>(secret.data()), secret.size(), digest.data());
    return digest;
}

ZResult<void> TokenFile::Add(std::string_view line) {
    const std::string_view name = NextWord(line);
    const auto role = RoleOf(NextWord(line));
    const std::string_view secret = NextWord(line);
    if (name.size() > kLongestName || !IsMadeOfLetters(name)) {
        return ZError("a name is up to 64 letters, digits, - and _");
    }
    if (!role) {
        return ZError("behind the name comes look, operate or administer");
    }
    if (secret.size() < kShortestSecret || secret.size() > kLongestSecret || !IsMadeOfLetters(secret)) {
        return ZError("behind the role comes a token of 32 to 512 letters, digits, - and _");
    }
    if (!NextWord(line).empty()) {
        return ZError("there is more behind the token");
    }
    Entry entry{{std::string(name), *role}, DigestOf(secret)};
    if (std::ranges::any_of(m_entries, [&](const Entry& other) {
            return other.token.name == entry.token.name || other.digest == entry.digest;
        })) {
        return ZError("a line before has the same name or token");
    }
    if (m_entries.size() == kMostTokens) {
        return ZError("there are more than 64 tokens");
    }
    m_entries.push_back(std::move(entry));
    return {};
}

ZResult<TokenFile> TokenFile::Read(const std::string& path) {
    auto text = ReadSecretFile(path);
    if (!text) {
        return text.error();
    }
    const ZScopeEnd wipe([&] { ::OPENSSL_cleanse(text->data(), text->size()); });
    TokenFile file;
    std::string_view rest(text->data(), text->size());
    for (int number = 1; !rest.empty(); ++number) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        const std::size_t begin = line.find_first_not_of(kBlanks);
        if (begin == std::string_view::npos || line[begin] == '#') {
            continue;
        }
        if (const auto added = file.Add(line); !added) {
            return added.error().In(path + ':' + std::to_string(number));
        }
    }
    if (file.m_entries.empty()) {
        return ZError("it holds no token").In(path);
    }
    return file;
}

const Token* TokenFile::Find(std::string_view secret) const {
    const Digest digest = DigestOf(secret);
    const Token* found = nullptr;
    for (const Entry& entry : m_entries) {
        if (::CRYPTO_memcmp(entry.digest.data(), digest.data(), digest.size()) == 0) {
            found = &entry.token;
        }
    }
    return found;
}

}  // namespace gateway
