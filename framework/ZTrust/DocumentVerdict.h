#pragma once

#include "ZTrust/ZPackage.h"
#include "ZTrust/ZTrustDocument.h"

namespace ztrust {

/// The verdict on a package's signatures, digest and security number where a trust document decides; whether it is for
/// the board asked for is not looked at.
ZVerdict JudgeByDocument(const ZPackage& package, const ZTrustDocument& document, bool acceptsDevelopment);

}  // namespace ztrust
