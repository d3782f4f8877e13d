#include "ZTrust/ZTrust.h"

#include <openssl/err.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "Certificates.h"

namespace fs = std::filesystem;

namespace {

constexpr std::uintmax_t kLargestCertificateFile = std::uintmax_t{256} * 1024;

ZVerdict JudgeSigner(const ZPackage& package, const ZPackageSignature& signature, const X509& certificate,
                     bool isListed, const ztrust::Certificates& trusted) {
    const std::string name = ztrust::NameOf(certificate);
    if (!ztrust::SignatureFits(certificate, package.signedText, signature.bytes)) {
        return {ZVerdictCode::BadSignature, "its signature does not fit: it is damaged or was changed"};
    }
    if (!ztrust::IsStrong(certificate)) {
        return {ZVerdictCode::WeakKey, "the key of its signer " + name + " is too weak"};
    }
    const bool isIssued = !isListed && trusted.HaveIssued(certificate);
    if (!ztrust::IsForPackages(certificate, !isIssued)) {
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
ZVerdict JudgeSignature(const ZPackage& package, const ZPackageSignature& signature,
                        const ztrust::Certificates& trusted) {
    std::vector<ztrust::Certificate> brought;
    std::string key = signature.key;
    const bool isNamedByCertificate = key.empty();
    if (isNamedByCertificate) {
        brought = ztrust::ReadCertificates(signature.certificate);
        key = brought.empty() ? std::string() : ztrust::KeyOf(*brought.front());
    }
    std::vector<ZVerdict> verdicts;
    for (const X509* const listed : trusted.WithKey(key)) {
        verdicts.push_back(JudgeSigner(package, signature, *listed, true, trusted));
    }
    if (!verdicts.empty()) {
        return Best(verdicts);
    }
    if (!isNamedByCertificate) {
        brought = ztrust::ReadCertificates(signature.certificate);
    }
    if (brought.empty() || ztrust::KeyOf(*brought.front()) != key) {
        return {ZVerdictCode::BadSignature, "it is signed with a key that is not known here"};
    }
    return JudgeSigner(package, signature, *brought.front(), false, trusted);
}

ZVerdict JudgeAll(const ZPackage& package, const ztrust::Certificates& trusted) {
    std::vector<ZVerdict> verdicts;
    for (const ZPackageSignature& signature : package.signatures) {
        verdicts.push_back(JudgeSignature(package, signature, trusted));
    }
    ERR_clear_error();
    return verdicts.empty() ? ZVerdict{ZVerdictCode::BadSignature, "it is not signed"} : Best(verdicts);
}

}  // namespace

ZTrustedSigners::ZTrustedSigners() : m_certificates(std::make_unique<ztrust::Certificates>()) {}
ZTrustedSigners::~ZTrustedSigners() = default;
ZTrustedSigners::ZTrustedSigners(ZTrustedSigners&&) noexcept = default;
ZTrustedSigners& ZTrustedSigners::operator=(ZTrustedSigners&&) noexcept = default;

ZResult<ZTrustedSigners> ZTrustedSigners::Load(const std::string& folder) {
    ZTrustedSigners signers;
    std::error_code error;
    std::set<fs::path> files;  // in the order of their names
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        if (entry->path().extension() == ".pem" || entry->path().extension() == ".crt") {
            files.insert(entry->path());
        }
    }
    for (const fs::path& file : files) {
        std::error_code unreadable;
        if (fs::file_size(file, unreadable) <= kLargestCertificateFile && !unreadable) {
            std::ifstream stream(file, std::ios::binary);
            signers.m_certificates->Add(
                ztrust::ReadCertificates({std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()}));
        }
    }
    if (error) {
        return ZError("the trusted certificates in " + folder + " can't be read: " + error.message());
    }
    if (signers.m_certificates->IsEmpty()) {
        return ZError("there is no trusted certificate in " + folder);
    }
    return signers;
}

ZVerdict ZTrustedSigners::Judge(const ZPackage& package, const std::string& board) const {
    ZVerdict verdict = JudgeAll(package, *m_certificates);
    if (verdict.IsGood() && !board.empty() && board != package.board) {
        return {ZVerdictCode::WrongBoard, "the package is for board " + package.board + ", not for " + board};
    }
    return verdict;
}

ZVerdict ZTrustedSigners::CheckSignatures(const ZPackage& package) {
    const ZVerdict verdict = JudgeAll(package, ztrust::Certificates());
    const bool fits = verdict.code > ZVerdictCode::BadSignature;
    return fits ? ZVerdict{} : verdict;
}

std::string ZTrustedSigners::SignerName(const ZPackage& package) {
    const auto certificates = package.signatures.empty()
                                  ? std::vector<ztrust::Certificate>()
                                  : ztrust::ReadCertificates(package.signatures.front().certificate);
    return certificates.empty() ? std::string() : ztrust::NameOf(*certificates.front());
}
