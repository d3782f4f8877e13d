#pragma once

#include <openssl/evp.h>

#include <memory>
#include <string>
#include <string_view>

namespace ztrust {

using PublicKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

/// The key in a SubjectPublicKeyInfo (DER); empty when there is none in it, or when the same key has another DER: who
/// counts keys by their digests must not count one twice.
PublicKey ReadPublicKey(std::string_view der);
/// Ed25519, or RSA of at least 2,048 bits. nullptr is not.
bool IsStrong(const EVP_PKEY* key);
/// Whether `signature` over `text` was made with the key; nullptr has made none.
bool SignatureFits(EVP_PKEY* key, std::string_view text, std::string_view signature);

}  // namespace ztrust
