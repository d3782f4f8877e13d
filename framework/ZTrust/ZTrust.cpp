#include "ZTrust/ZTrust.h"

#include <filesystem>
#include <fstream>
#include <set>

#include "CertificateVerdict.h"
#include "DocumentVerdict.h"
#include "ZTrust/ZTrustInForce.h"

namespace fs = std::filesystem;

namespace {

constexpr std::uintmax_t kLargestCertificateFile = std::uintmax_t{256} * 1024;

ZResult<ztrust::Certificates> ReadFolder(const std::string& folder) {
    ztrust::Certificates certificates;
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
            certificates.Add(
                ztrust::ReadCertificates({std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()}));
        }
    }
    if (error) {
        return ZError("the trusted certificates in " + folder + " can't be read: " + error.message());
    }
    if (certificates.IsEmpty()) {
        return ZError("there is no trusted certificate in " + folder);
    }
    return certificates;
}

}  // namespace

ZTrustedSigners::ZTrustedSigners() : m_certificates(std::make_shared<ztrust::Certificates>()) {}

ZTrustedSigners::ZTrustedSigners(ZTrustDocument document) : ZTrustedSigners() {
    m_document = std::make_shared<const ZTrustDocument>(std::move(document));
}

ZResult<ZTrustedSigners> ZTrustedSigners::Load(const std::string& folder, const std::string& state) {
    auto document = ReadTrustInForce(folder, state);
    if (!document) {
        return document.error();
    }
    if (*document) {
        return ZTrustedSigners(std::move(**document));
    }
    auto certificates = ReadFolder(folder);
    if (!certificates) {
        return certificates.error();
    }
    ZTrustedSigners signers;
    signers.m_certificates = std::make_shared<const ztrust::Certificates>(std::move(*certificates));
    return signers;
}

ZResult<std::optional<ZTrustedSigners::Followed>> ZTrustedSigners::Follow(const ZTrustChain& chain) const {
    const auto isNew = chain.ContinuesFrom(Document());
    if (!isNew) {
        return isNew.error();
    }
    return *isNew ? std::optional(Followed{ZTrustedSigners(chain.Last()), chain.Text()}) : std::nullopt;
}

ZVerdict ZTrustedSigners::JudgeSignatures(const ZPackage& package, const ZTrustQuestion& question) const {
    if (!m_document) {
        return ztrust::JudgeByCertificates(package, *m_certificates);
    }
    const auto own = ZTrustChain::Parse(package.trust);
    const auto isNewer = own ? own->ContinuesFrom(Document()) : own.error();
    const ZTrustDocument& judge = isNewer && *isNewer ? own->Last() : *m_document;
    return ztrust::JudgeByDocument(package, judge, question.acceptsDevelopment);
}

ZVerdict ZTrustedSigners::Judge(const ZPackage& package, const ZTrustQuestion& question) const {
    ZVerdict verdict = JudgeSignatures(package, question);
    if (verdict.IsGood() && !question.board.empty() && question.board != package.board) {
        return {ZVerdictCode::WrongBoard, "the package is for board " + package.board + ", not for " + question.board};
    }
    return verdict;
}

ZVerdict ZTrustedSigners::CheckSignatures(const ZPackage& package) {
    const ZVerdict verdict = ztrust::JudgeByCertificates(package, ztrust::Certificates());
    const bool fits = verdict.code > ZVerdictCode::BadSignature;
    return fits ? ZVerdict{} : verdict;
}

std::string ZTrustedSigners::SignerName(const ZPackage& package) {
    const auto certificates = package.signatures.empty()
                                  ? std::vector<ztrust::Certificate>()
                                  : ztrust::ReadCertificates(package.signatures.front().certificate);
    return certificates.empty() ? std::string() : ztrust::NameOf(*certificates.front());
}
