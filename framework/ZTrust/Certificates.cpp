#include "Certificates.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>

#include "PublicKey.h"
#include "ZTrust/Sha256.h"

namespace ztrust {

namespace {

constexpr int kSecurityLevel = 2;  // OpenSSL's: keys and digests of 112 bits of security
constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
constexpr std::string_view kBlanks = " \t\n\r\f\v";
constexpr std::string_view kBlockLetters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/= \t\n\r\f\v";

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;

bool HasPurpose(const X509& certificate, int purpose) {
    const auto usage = std::unique_ptr<EXTENDED_KEY_USAGE, decltype(&EXTENDED_KEY_USAGE_free)>(
        static_cast<EXTENDED_KEY_USAGE*>(X509_get_ext_d2i(&certificate, NID_ext_key_usage, nullptr, nullptr)),
        EXTENDED_KEY_USAGE_free);
    for (int index = 0; usage && index < sk_ASN1_OBJECT_num(usage.get()); ++index) {
        if (OBJ_obj2nid(sk_ASN1_OBJECT_value(usage.get(), index)) == purpose) {
            return true;
        }
    }
    return false;
}

bool HasExtension(const X509& certificate, int extension) {
    return X509_get_ext_by_NID(&certificate, extension, -1) >= 0;
}

/// OpenSSL keeps what it works out of a certificate in it, under a lock of its own.
X509* Unlocked(const X509& certificate) {
    return const_cast<X509*>(&certificate);
}

constexpr int kIsAuthority = 1;  // other answers stand for certificates that don't say so themselves

/// OpenSSL's own check of the two, at any date.
bool ChainHolds(const X509& certificate, const X509& issuer) {
    const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), X509_STORE_free);
    const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(X509_STORE_CTX_new(),
                                                                                  X509_STORE_CTX_free);
    if (!store || !context || X509_STORE_add_cert(store.get(), Unlocked(issuer)) != 1 ||
        X509_STORE_CTX_init(context.get(), store.get(), Unlocked(certificate), nullptr) != 1) {
        return false;
    }
    X509_VERIFY_PARAM* const rules = X509_STORE_CTX_get0_param(context.get());
    X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_PARTIAL_CHAIN | X509_V_FLAG_NO_CHECK_TIME);
    X509_VERIFY_PARAM_set_auth_level(rules, kSecurityLevel);
    const bool holds = X509_verify_cert(context.get()) == 1;
    ERR_clear_error();
    return holds;
}

}  // namespace

std::vector<Certificate> ReadCertificates(const std::string& pem) {
    std::vector<Certificate> found;
    for (std::size_t begin = pem.find(kBegin); begin != std::string::npos; begin = pem.find(kBegin, begin + 1)) {
        const std::size_t inner = begin + kBegin.size();
        const std::size_t end = pem.find_first_not_of(kBlockLetters, inner);
        if (end == std::string::npos || pem.compare(end, kEnd.size(), kEnd) != 0 || end - inner < 2 ||
            kBlanks.find(pem[inner]) == std::string_view::npos) {
            continue;
        }
        const std::string block = pem.substr(begin, end + kEnd.size() - begin) + "\n";
        const Bio text(BIO_new_mem_buf(block.data(), static_cast<int>(block.size())), BIO_free);
        Certificate next(text ? PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr) : nullptr, X509_free);
        if (next) {
            found.push_back(std::move(next));
        }
    }
    ERR_clear_error();
    return found;
}

std::string KeyOf(const X509& certificate) {
    unsigned char* der = nullptr;
    const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(&certificate), &der);
    const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owner(
        der, [](unsigned char* bytes) { OPENSSL_free(bytes); });
    return size > 0 ? Sha256Hex({reinterpret_cast<const char*>(der), static_cast<std::size_t>(size)}) : std::string();
}

std::string NameOf(const X509& certificate) {
    const Bio text(BIO_new(BIO_s_mem()), BIO_free);
    char* bytes = nullptr;
    if (!text || X509_NAME_print_ex(text.get(), X509_get_subject_name(&certificate), 0, XN_FLAG_ONELINE) < 0) {
        return {};
    }
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return {bytes, static_cast<std::size_t>(std::max(size, 0L))};
}

bool IsStrong(const X509& certificate) {
    return IsStrong(X509_get0_pubkey(&certificate));
}

bool SignatureFits(const X509& certificate, std::string_view text, std::string_view signature) {
    return SignatureFits(X509_get0_pubkey(&certificate), text, signature);
}

void Certificates::Add(std::vector<Certificate> certificates) {
    std::ranges::move(certificates, std::back_inserter(m_all));
}

std::vector<const X509*> Certificates::WithKey(const std::string& key) const {
    std::vector<const X509*> found;
    for (const Certificate& each : m_all) {
        if (!key.empty() && KeyOf(*each) == key) {
            found.push_back(each.get());
        }
    }
    return found;
}

bool Certificates::HaveIssued(const X509& certificate) const {
    return std::ranges::any_of(m_all, [&](const Certificate& issuer) {
        return X509_check_ca(issuer.get()) == kIsAuthority && ChainHolds(certificate, *issuer);
    });
}

bool IsForPackages(const X509& certificate, bool isListed) {
    const std::uint32_t usage = X509_get_key_usage(Unlocked(certificate));  // all bits when it does not say
    if ((usage & KU_DIGITAL_SIGNATURE) == 0) {
        return false;
    }
    return HasExtension(certificate, NID_ext_key_usage) ? HasPurpose(certificate, NID_code_sign) : isListed;
}

}  // namespace ztrust
