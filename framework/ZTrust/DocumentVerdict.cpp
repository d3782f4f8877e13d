#include "DocumentVerdict.h"

#include <algorithm>

#include "Certificates.h"

namespace ztrust {

namespace {

/// What is to be said of one signature, and whose it is when it counts.
struct Finding {
    ZVerdict verdict;
    const ZTrustKey* key = nullptr;
};

/// A key that the document does not have: only the certificate that comes with it tells whether the signature fits.
ZVerdict JudgeStranger(const ZPackage& package, const ZPackageSignature& signature,
                       const std::vector<Certificate>& brought, const std::string& key) {
    if (brought.empty() || KeyOf(*brought.front()) != key) {
        return {ZVerdictCode::BadSignature, "it is signed with a key that is not known here"};
    }
    if (!SignatureFits(*brought.front(), package.signedText, signature.bytes)) {
        return {ZVerdictCode::BadSignature, "its signature does not fit: it is damaged or was changed"};
    }
    return {ZVerdictCode::UnknownSigner, "its signer " + NameOf(*brought.front()) + " is not trusted"};
}

/// Why the key must not sign packages for the board; empty when it may.
std::string WhyNotAllowed(const ZTrustKey& key, const std::string& board, bool acceptsDevelopment) {
    const bool isForDevelopment = key.Has(ZTrustRole::Development);
    if (!key.Has(ZTrustRole::Release) && !isForDevelopment) {
        return "may not sign packages";
    }
    if (!key.Has(ZTrustRole::Release) && !acceptsDevelopment) {
        return "may sign development packages alone, which are not accepted here";
    }
    return key.IsFor(board) ? "" : "may not sign packages for board " + board;
}

Finding JudgeSignature(const ZPackage& package, const ZPackageSignature& signature, const ZTrustDocument& document,
                       bool acceptsDevelopment) {
    const auto brought = ReadCertificates(signature.certificate);
    const bool isNamedByCertificate = signature.key.empty() && !brought.empty();
    const std::string id = isNamedByCertificate ? KeyOf(*brought.front()) : signature.key;
    const ZTrustKey* const key = document.Find(id);
    if (key == nullptr) {
        return {JudgeStranger(package, signature, brought, id)};
    }
    if (!key->HasSigned(package.signedText, signature.bytes)) {
        return {{ZVerdictCode::BadSignature, "its signature does not fit: it is damaged or was changed"}};
    }
    if (const std::string why = WhyNotAllowed(*key, package.board, acceptsDevelopment); !why.empty()) {
        return {{ZVerdictCode::NotAllowed, "its signer " + key->name + " " + why}};
    }
    return {{}, key};
}

/// The keys that count, each once.
std::vector<const ZTrustKey*> Counting(const std::vector<Finding>& findings) {
    std::vector<const ZTrustKey*> keys;
    for (const Finding& each : findings) {
        if (each.key != nullptr && std::ranges::count(keys, each.key) == 0) {
            keys.push_back(each.key);
        }
    }
    return keys;
}

ZVerdict CheckCount(const std::vector<const ZTrustKey*>& keys, const ZTrustDocument& document,
                    bool acceptsDevelopment) {
    const auto count = [&](ZTrustRole role) {
        return static_cast<std::uint32_t>(std::ranges::count_if(keys, [&](auto* key) { return key->Has(role); }));
    };
    const auto isEnough = [&](ZTrustRole role) { return count(role) >= document.Threshold(role); };
    if (isEnough(ZTrustRole::Release) || (acceptsDevelopment && isEnough(ZTrustRole::Development))) {
        return {};
    }
    const ZTrustRole role = count(ZTrustRole::Release) > 0 ? ZTrustRole::Release : ZTrustRole::Development;
    return {ZVerdictCode::TooFewSigners, "it is signed by " + std::to_string(count(role)) + " of the " +
                                             std::to_string(document.Threshold(role)) + " keys that are needed"};
}

std::string Names(const std::vector<const ZTrustKey*>& keys) {
    std::string names;
    for (const ZTrustKey* const key : keys) {
        names += (names.empty() ? "" : ", ") + key->name;
    }
    return names;
}

}  // namespace

ZVerdict JudgeByDocument(const ZPackage& package, const ZTrustDocument& document, bool acceptsDevelopment) {
    std::vector<Finding> findings;
    for (const ZPackageSignature& signature : package.signatures) {
        findings.push_back(JudgeSignature(package, signature, document, acceptsDevelopment));
    }
    if (findings.empty()) {
        return {ZVerdictCode::BadSignature, "it is not signed"};
    }
    const auto keys = Counting(findings);
    if (keys.empty()) {
        return findings.front().verdict;
    }
    if (ZVerdict verdict = CheckCount(keys, document, acceptsDevelopment); !verdict.IsGood()) {
        return verdict;
    }
    const std::string number = std::to_string(document.number);
    if (document.HasRevoked(package.digest)) {
        return {ZVerdictCode::Revoked, "trust document " + number + " has revoked this package"};
    }
    if (package.securityNumber < document.securityFloor) {
        return {ZVerdictCode::BelowFloor, "its security number is " + std::to_string(package.securityNumber) +
                                              ", and trust document " + number + " asks for at least " +
                                              std::to_string(document.securityFloor)};
    }
    return {ZVerdictCode::Good,
            "version " + package.version + " for board " + package.board + ", signed by " + Names(keys)};
}

}  // namespace ztrust
