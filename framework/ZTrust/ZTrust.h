#pragma once

#include <memory>
#include <string>

#include "ZShared/ZError.h"
#include "ZTrust/ZPackage.h"

namespace ztrust {
class Certificates;
}

/// Those whose packages may be installed: the certificates of a folder ("*.pem", "*.crt"). A package is trusted when a
/// certificate there is its signer's, or has issued its signer's for signing code. Dates are not looked at: an
/// instrument's clock may be unset; a signer is withdrawn by taking the certificate away.
class ZTrustedSigners {
public:
    /// Trusts nobody.
    ZTrustedSigners();
    ~ZTrustedSigners();
    ZTrustedSigners(ZTrustedSigners&&) noexcept;
    ZTrustedSigners& operator=(ZTrustedSigners&&) noexcept;

    /// Reads the folder. One that can't be read, or holds no certificate, is an error; an unreadable certificate among
    /// others is left out.
    static ZResult<ZTrustedSigners> Load(const std::string& folder);

    /// Whether the package may be installed on `board` (empty: on any). The sentence of a good one names version, board
    /// and signer. Thread-safe.
    ZVerdict Judge(const ZPackage& package, const std::string& board) const;

    /// The verdict on the signatures alone, for somebody who trusts nobody yet: good means that one of them fits.
    static ZVerdict CheckSignatures(const ZPackage& package);
    /// Who signed it first, as its certificate says ("CN = Arbor release"); empty when no certificate comes with it.
    static std::string SignerName(const ZPackage& package);

private:
    std::unique_ptr<ztrust::Certificates> m_certificates;
};
