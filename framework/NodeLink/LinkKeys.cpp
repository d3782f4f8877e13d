#include "NodeLink/LinkKeys.h"

#include <sodium.h>

#include <charconv>
#include <cstdio>

#include "ZMessages/ZFields.h"
#include "ZMessages/ZJSONCommStream.h"
#include "ZShared/ZReplaceFile.h"
#include "ZShared/ZScopeEnd.h"
#include "text/Hex.h"

namespace fs = std::filesystem;

/// The key file's document.
class ZLinkKeysDocument : public ZMessage {
    Z_MESSAGE(ZLinkKeysDocument, ZMessage)
public:
    ZString m_PublicKey;
    ZString m_SecretKey;

    Z_FIELDS(Z_FIELD(m_PublicKey), Z_FIELD(m_SecretKey))
};
Z_IMPLEMENT(ZLinkKeysDocument)

namespace {

template <typename Bytes>
void Wipe(Bytes& bytes) {
    ::sodium_memzero(bytes.data(), bytes.size());
}

ZResult<LinkKeyPair> ReadKeys(const fs::path& file) {
    constexpr fs::perms kOfOthers = fs::perms::group_all | fs::perms::others_all;
    std::error_code code;
    if ((fs::status(file, code).permissions() & kOfOthers) != fs::perms::none && !code) {
        return ZError("others than its owner may use it; \"chmod 600\", and a new key if one of them may have read it")
            .In(file.string());
    }
    ZLinkKeysDocument document;
    const ZScopeEnd wipe([&] { Wipe(document.m_SecretKey); });
    ZJSONCommStream stream;
    if (!ZMessage::LoadDocument(file, stream) || !document.Deserialize(stream)) {
        return ZError(stream.Error()).In(file.string());
    }
    auto secretKey = LinkKeyFrom(document.m_SecretKey);
    LinkKeyBytes publicKey{};
    if (!secretKey || ::crypto_scalarmult_base(publicKey.data(), secretKey->data()) != 0 ||
        LinkKeyText(publicKey) != ToStdString(document.m_PublicKey)) {
        return ZError("it holds no matching pair of keys").In(file.string());
    }
    LinkKeyPair keys{ToStdString(document.m_PublicKey), {*secretKey}};
    Wipe(*secretKey);
    return keys;
}

ZResult<LinkKeyPair> MakeKeys(const fs::path& file) {
    LinkKeyBytes publicKey{};
    LinkKeyPair keys;
    ::crypto_box_keypair(publicKey.data(), keys.secretKey.data());
    keys.publicKey = LinkKeyText(publicKey);
    std::string text;
    const ZScopeEnd wipe([&] { Wipe(text); });
    text.reserve(256);  // one that grows leaves a copy behind
    text += R"({"publicKey":")" + keys.publicKey + R"(","secretKey":")";
    for (const std::uint8_t byte : keys.secretKey) {
        text::AppendHex(text, byte);
    }
    text += "\"}\n";
    std::error_code code;
    fs::create_directories(file.parent_path(), code);
    if (const auto written = ReplaceFile(file, text, 0600); !written) {
        return written.error();
    }
    return keys;
}

}  // namespace

LinkSecretKey::~LinkSecretKey() {
    Wipe(*this);
}

std::optional<LinkKeyBytes> LinkKeyFrom(std::string_view text) {
    LinkKeyBytes key{};
    if (text.size() != 2 * key.size() || text.find_first_not_of("0123456789abcdef") != std::string_view::npos) {
        return std::nullopt;
    }
    for (std::size_t index = 0; index < key.size(); ++index) {
        const char* const digits = text.data() + 2 * index;
        std::from_chars(digits, digits + 2, key[index], 16);
    }
    return key;
}

std::string LinkKeyText(const LinkKeyBytes& key) {
    return text::HexDigits(key);
}

ZResult<LinkKeyPair> LoadOrMakeLinkKeys(const fs::path& file) {
    if (::sodium_init() < 0) {
        return ZError("the system gives no random bytes");
    }
    std::error_code code;
    if (fs::exists(file, code)) {
        return ReadKeys(file);
    }
    return code ? ZError(code.message()).In(file.string()) : MakeKeys(file);
}
