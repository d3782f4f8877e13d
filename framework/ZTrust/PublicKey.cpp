#include "PublicKey.h"

#include <openssl/err.h>
#include <openssl/x509.h>

namespace ztrust {

namespace {

constexpr int kLeastRsaBits = 2048;

const unsigned char* Data(std::string_view bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

}  // namespace

PublicKey ReadPublicKey(std::string_view der) {
    const unsigned char* begin = Data(der);
    PublicKey key(d2i_PUBKEY(nullptr, &begin, static_cast<long>(der.size())), EVP_PKEY_free);
    unsigned char* again = nullptr;
    const int size = key ? i2d_PUBKEY(key.get(), &again) : 0;
    const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owner(
        again, [](unsigned char* bytes) { OPENSSL_free(bytes); });
    ERR_clear_error();
    const bool isSame =
        size > 0 && der == std::string_view(reinterpret_cast<const char*>(again), static_cast<std::size_t>(size));
    return isSame ? std::move(key) : PublicKey(nullptr, EVP_PKEY_free);
}

bool IsStrong(const EVP_PKEY* key) {
    const int kind = key != nullptr ? EVP_PKEY_get_base_id(key) : EVP_PKEY_NONE;
    return kind == EVP_PKEY_ED25519 || (kind == EVP_PKEY_RSA && EVP_PKEY_get_bits(key) >= kLeastRsaBits);
}

bool SignatureFits(EVP_PKEY* key, std::string_view text, std::string_view signature) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (key == nullptr || !context) {
        return false;
    }
    const int kind = EVP_PKEY_get_base_id(key);
    const EVP_MD* const digest = kind == EVP_PKEY_ED25519 || kind == EVP_PKEY_ED448 ? nullptr : EVP_sha256();
    const bool fits = EVP_DigestVerifyInit(context.get(), nullptr, digest, nullptr, key) == 1 &&
                      EVP_DigestVerify(context.get(), Data(signature), signature.size(), Data(text), text.size()) == 1;
    ERR_clear_error();
    return fits;
}

}  // namespace ztrust
