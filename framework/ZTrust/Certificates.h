#pragma once

#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ZTrust/ZPackage.h"

namespace ztrust {

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

/// The certificates in a text of PEM, whatever stands around them; what can't be read is left out.
std::vector<Certificate> ReadCertificates(const std::string& pem);
/// SHA-256 of the public key's SubjectPublicKeyInfo; empty when there is none.
std::string KeyOf(const X509& certificate);
/// "CN = Arbor release", with control characters escaped.
std::string NameOf(const X509& certificate);
/// Ed25519, or RSA of at least 2,048 bits.
bool IsStrong(const X509& certificate);
/// Whether `signature` over `text` was made with the certificate's key.
bool SignatureFits(const X509& certificate, std::string_view text, std::string_view signature);

/// Those that are trusted.
class Certificates {
public:
    void Add(std::vector<Certificate> certificates);
    bool IsEmpty() const { return m_all.empty(); }
    std::vector<const X509*> WithKey(const std::string& key) const;
    bool HaveIssued(const X509& certificate) const;

private:
    std::vector<Certificate> m_all;
};

/// Whether a certificate may stand behind a package's signature: `isListed` when it is itself trusted; one that was
/// issued has to say that it is for code.
bool IsForPackages(const X509& certificate, bool isListed);

}  // namespace ztrust
