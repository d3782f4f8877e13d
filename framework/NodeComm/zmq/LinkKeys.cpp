#include "NodeComm/zmq/LinkKeys.h"

#include <fcntl.h>
#include <zmq.h>

#include <cerrno>
#include <charconv>
#include <cstring>

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

using KeyText = std::array<char, 41>;  // the library's own notation, with the zero at its end

LinkKeyBytes Decoded(const KeyText& text) {
    LinkKeyBytes key{};
    ::zmq_z85_decode(key.data(), text.data());
    return key;
}

/// The public key that belongs to a secret one.
std::optional<LinkKeyBytes> PublicKeyOf(const LinkKeyBytes& secretKey) {
    KeyText secretText{};
    KeyText publicText{};
    ::zmq_z85_encode(secretText.data(), secretKey.data(), secretKey.size());
    if (::zmq_curve_public(publicText.data(), secretText.data()) != 0) {
        return std::nullopt;
    }
    return Decoded(publicText);
}

std::optional<LinkKeyPair> ReadKeys(const fs::path& file, std::string& error) {
    ZLinkKeysDocument document;
    ZJSONCommStream stream;
    if (!ZMessage::LoadDocument(file, stream) || !document.Deserialize(stream)) {
        error = file.string() + ": " + stream.Error();
        return std::nullopt;
    }
    LinkKeyPair keys{ToStdString(document.m_PublicKey), ToStdString(document.m_SecretKey)};
    const auto secretKey = LinkKeyFrom(keys.secretKey);
    const auto publicKey = LinkKeyFrom(keys.publicKey);
    if (!secretKey || !publicKey || PublicKeyOf(*secretKey) != publicKey) {
        error = file.string() + " holds no matching pair of keys";
        return std::nullopt;
    }
    return keys;
}

std::optional<LinkKeyPair> MakeKeys(const fs::path& file, std::string& error) {
    KeyText publicText{};
    KeyText secretText{};
    if (::zmq_curve_keypair(publicText.data(), secretText.data()) != 0) {
        error = std::string("no key pair could be made: ") + ::zmq_strerror(errno);
        return std::nullopt;
    }
    LinkKeyPair keys{LinkKeyText(Decoded(publicText)), LinkKeyText(Decoded(secretText))};
    const std::string text = R"({"publicKey":")" + keys.publicKey + R"(","secretKey":")" + keys.secretKey + "\"}\n";
    std::error_code code;
    fs::create_directories(file.parent_path(), code);
    const ZFileDescriptor output(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    errno = output ? ENOSPC : errno;  // a write that falls short sets none
    if (!output || ::write(output.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::fsync(output.Get()) != 0) {
        error = file.string() + " could not be written: " + std::strerror(errno);
        if (output) {
            fs::remove(file, code);  // half a file would be taken for the keys at the next start
        }
        return std::nullopt;
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

std::optional<LinkKeyPair> LoadOrMakeLinkKeys(const fs::path& file, std::string& error) {
    std::error_code code;
    if (fs::exists(file, code)) {
        return ReadKeys(file, error);
    }
    if (code) {
        error = file.string() + ": " + code.message();
        return std::nullopt;
    }
    return MakeKeys(file, error);
}
