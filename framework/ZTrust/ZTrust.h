#pragma once

#include <memory>
#include <optional>
#include <string>

#include "ZShared/ZError.h"
#include "ZTrust/ZPackage.h"
#include "ZTrust/ZTrustChain.h"

namespace ztrust {
class Certificates;
}

/// What is asked of a package besides who signed it.
struct ZTrustQuestion {
    std::string board;                ///< the one that it has to be for; empty: any
    bool acceptsDevelopment = false;  ///< whether a trust document's development keys count
};

/// Those whose packages may be installed. A trust document says who they are, where there is one ("arbor-trust.json").
/// Otherwise it is the certificates of a folder ("*.pem", "*.crt"): a package is trusted when one of them is its
/// signer's, or has issued its signer's for signing code. Dates are not looked at, since an instrument's clock may be
/// unset. A value that is cheap to copy.
class ZTrustedSigners {
public:
    /// Trusts nobody.
    ZTrustedSigners();

    /// Reads the newer trust document of the two folders (see ReadTrustInForce), `state` being on the data partition
    /// and possibly empty. When there is none, reads the certificates of `folder`; one that can't be read, or holds no
    /// certificate, is an error, and an unreadable certificate among others is left out.
    static ZResult<ZTrustedSigners> Load(const std::string& folder, const std::string& state = "");

    /// The trust document in force; nullptr when the certificates decide.
    const ZTrustDocument* Document() const { return m_document.get(); }

    struct Followed;
    /// Those who are trusted once the chain's last document is in force, and what to keep of it; nothing when that
    /// document is in force already. An error says why the chain must not be followed.
    ZResult<std::optional<Followed>> Follow(const ZTrustChain& chain) const;

    /// Whether the package may be installed. Where a document is in force, and the package's own chain continues from
    /// it, that chain's last document is the judge. The sentence of a good one names version, board and signers.
    /// Thread-safe.
    ZVerdict Judge(const ZPackage& package, const ZTrustQuestion& question) const;

    /// The verdict on the signatures alone, for somebody who trusts nobody yet: good means that one of them fits.
    static ZVerdict CheckSignatures(const ZPackage& package);
    /// Who signed it first, as its certificate says ("CN = Arbor release"); empty when no certificate comes with it.
    static std::string SignerName(const ZPackage& package);

private:
    explicit ZTrustedSigners(ZTrustDocument document);
    ZVerdict JudgeSignatures(const ZPackage& package, const ZTrustQuestion& question) const;

    std::shared_ptr<const ztrust::Certificates> m_certificates;
    std::shared_ptr<const ZTrustDocument> m_document;
};

struct ZTrustedSigners::Followed {
    ZTrustedSigners signers;
    std::string text;  ///< the chain: what arbor-trust.json of the state folder has to hold from now on
};
