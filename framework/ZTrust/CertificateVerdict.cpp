#include "CertificateVerdict.h"

#include <openssl/err.h>

#include <algorithm>

namespace ztrust {

namespace {

ZVerdict JudgeSigner(const ZPackage& package, const ZPackageSignature& signature, const X509& certificate,
                     bool isListed, const Certificates& trusted) {
    const std::string name = NameOf(certificate);
    if (!SignatureFits(certificate, package.signedText, signature.bytes)) {
        return {ZVerdictCode::BadSignature, "its signature does not fit: it is damaged or was changed"};
    }
    if (!IsStrong(certificate)) {
        return {ZVerdictCode::WeakKey, "the key of its signer " + name + " is too weak"};
    }
    const bool isIssued = !isListed && trusted.HaveIssued(certificate);
    if (!IsForPackages(certificate, !isIssued)) {
        return {ZVerdictCode::WrongPurpose, "the certificate of its signer " + name + " is not for signing packages"};
    }
    if (!isListed && !isIssued) {
        return {ZVerdictCode::UnknownSigner, "its signer " + name + " is not trusted"};
    }
    return {ZVerdictCode::Good, "version " + package.version + " for board " + package.board + ", signed by " + name};
}

/// The first good verdict, else the first of all.
ZVerdict Best(const std::vector<ZVerdict>& verdicts) {
    const auto good = std::ranges::find_if(verdicts, &ZVerdict::IsGood);
    return good != verdicts.end() ? *good : verdicts.front();
}

/// By the trusted certificate that has the signature's key, else by the one that comes with it.
ZVerdict JudgeSignature(const ZPackage& package, const ZPackageSignature& signature, const Certificates& trusted) {
    std::vector<Certificate> brought;
    std::string key = signature.key;
    const bool isNamedByCertificate = key.empty();
    if (isNamedByCertificate) {
        brought = ReadCertificates(signature.certificate);
        key = brought.empty() ? std::string() : KeyOf(*brought.front());
    }
    std::vector<ZVerdict> verdicts;
    for (const X509* const listed : trusted.WithKey(key)) {
        verdicts.push_back(JudgeSigner(package, signature, *listed, true, trusted));
    }
    if (!verdicts.empty()) {
        return Best(verdicts);
    }
    if (!isNamedByCertificate) {
        brought = ReadCertificates(signature.certificate);
    }
    if (brought.empty() || KeyOf(*brought.front()) != key) {
        return {ZVerdictCode::BadSignature, "it is signed with a key that is not known here"};
    }
    return JudgeSigner(package, signature, *brought.front(), false, trusted);
}

}  // namespace

ZVerdict JudgeByCertificates(const ZPackage& package, const Certificates& trusted) {
    std::vector<ZVerdict> verdicts;
    for (const ZPackageSignature& signature : package.signatures) {
        verdicts.push_back(JudgeSignature(package, signature, trusted));
    }
    ERR_clear_error();
    return verdicts.empty() ? ZVerdict{ZVerdictCode::BadSignature, "it is not signed"} : Best(verdicts);
}

}  // namespace ztrust
