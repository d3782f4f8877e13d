#pragma once

#include "Certificates.h"

namespace ztrust {

/// The verdict on a package's signatures where certificates decide who is trusted; its board is not looked at.
ZVerdict JudgeByCertificates(const ZPackage& package, const Certificates& trusted);

}  // namespace ztrust
