#include "NodeLink/LinkKeys.h"

#include <fcntl.h>
#include <sodium.h>

#include <cerrno>
#include <charconv>
#include <cstdio>

#include "ZMessages/ZFields.h"
#include "ZMessages/ZJSONCommStream.h"
#include "ZShared/ZFileDescriptor.h"
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

/// Writes a file that only its owner may read and that is safe on the disk afterwards; 0, or the errno of what failed.
int WriteSecret(const fs::path& file, const std::string& text) {
    const ZFileDescriptor output(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!output) {
        return errno;
    }
    errno = ENOSPC;  // a write that falls short sets none
    const bool written = ::write(output.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                         ::fsync(output.Get()) == 0;
    return written ? 0 : errno;
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
    // Under a name of its own until it is whole: half a file would be taken for the keys at the next start.
    const fs::path temporary = file.string() + ".new";
    fs::remove(temporary, code);
    int failure = WriteSecret(temporary, text);
    if (failure == 0 && ::rename(temporary.c_str(), file.c_str()) != 0) {
        failure = errno;
    }
    if (failure != 0) {
        fs::remove(temporary, code);
        return ZError::OfSystem(file.string() + " could not be written", failure);
    }
    const ZFileDescriptor folder(::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder) {
        static_cast<void>(::fsync(folder.Get()));  // without it the name may be lost with the power; the file is whole
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
