#pragma once

#include <optional>
#include <string>

#include "ZTrust/ZTrustDocument.h"

/// What the file of a chain of trust documents is called, wherever it lies.
inline constexpr const char* kTrustFileName = "arbor-trust.json";

/// The last trust document of `folder`/arbor-trust.json (the system's) or of `state`/arbor-trust.json (empty: none),
/// the one with the greater number, of equal ones the system's; nothing when there is neither file. A file that is
/// there and can't be read, is damaged, or whose last document lacks signatures of its own, is an error.
ZResult<std::optional<ZTrustDocument>> ReadTrustInForce(const std::string& folder, const std::string& state);
