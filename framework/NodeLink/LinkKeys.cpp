#include "NodeLink/LinkKeys.h"

#include <fcntl.h>
#include <sodium.h>

#include <cerrno>
#include <charconv>
#include <cstdio>

#include "ZMessages/ZFields.h"
#include "ZMessages/ZJSONCommStream.h"
#include "ZShared/ZFileDescriptor.h"
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

ZResult<LinkKeyPair> ReadKeys(const fs::path& file) {
    ZLinkKeysDocument document;
    ZJSONCommStream stream;
    if (!ZMessage::LoadDocument(file, stream) || !document.Deserialize(stream)) {
        return ZError(stream.Error()).In(file.string());
    }
    LinkKeyPair keys{ToStdString(document.m_PublicKey), ToStdString(document.m_SecretKey)};
    const auto secretKey = LinkKeyFrom(keys.secretKey);
    LinkKeyBytes publicKey{};
    if (!secretKey || ::crypto_scalarmult_base(publicKey.data(), secretKey->data()) != 0 ||
        LinkKeyText(publicKey) != keys.publicKey) {
        return ZError("it holds no matching pair of keys").In(file.string());
    }
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
    LinkKeyBytes secretKey{};
    ::crypto_box_keypair(publicKey.data(), secretKey.data());
    LinkKeyPair keys{LinkKeyText(publicKey), LinkKeyText(secretKey)};
    const std::string text = R"({"publicKey":")" + keys.publicKey + R"(","secretKey":")" + keys.secretKey + "\"}\n";
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

std::optional<LinkKeyBytes> LinkKeyFrom(const std::string& text) {
    LinkKeyBytes key{};
    if (text.size() != 2 * key.size()) {
        return std::nullopt;
    }
    for (std::size_t index = 0; index < key.size(); ++index) {
        const char* const digits = text.data() + 2 * index;
        const auto [end, failure] = std::from_chars(digits, digits + 2, key[index], 16);
        if (failure != std::errc() || end != digits + 2) {
            return std::nullopt;
        }
    }
    return LinkKeyText(key) == text ? std::optional(key) : std::nullopt;
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
