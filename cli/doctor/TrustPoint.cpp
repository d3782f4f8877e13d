#include <ctime>
#include <filesystem>

#include "JsonFields.h"
#include "ZTrust/ZTrustInForce.h"
#include "doctor/Facts.h"

// Whose packages the device takes, and whether anybody's can be.

namespace json = boost::json;
namespace fs = std::filesystem;

namespace arborctl::doctor {
namespace {

constexpr const char* kPoint = "trust";

std::string DateAfter(int days) {
    constexpr std::time_t kDay = std::time_t{24} * 3600;
    const std::time_t then = std::time(nullptr) + days * kDay;
    tm parts{};
    gmtime_r(&then, &parts);
    std::string text(sizeof("2027-01-31"), '\0');
    text.resize(std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts));
    return text;
}

/// Fewer keys than signatures: nothing can be signed any more.
bool AreKeysEnough(const json::value& trust, Findings& found) {
    for (const char* const role : {"trust", "release"}) {
        std::int64_t count = 0;
        for (const json::value& key : fields::List(trust, "keys")) {
            for (const json::value& each : fields::List(key, "roles")) {
                count += each.is_string() && each.get_string() == role ? 1 : 0;
            }
        }
        const std::int64_t threshold = fields::Number(trust, std::string(role) + "Threshold");
        if (count < threshold) {
            found.Fault(kPoint,
                        "a " + std::string(role) + " signature takes " + std::to_string(threshold) +
                            " keys, and the trust document has " + std::to_string(count),
                        "make a trust document with enough keys, and bring it: arborctl trust apply FILE");
            return false;
        }
    }
    return true;
}

void LookAtDocument(const json::value& trust, Findings& found) {
    if (!AreKeysEnough(trust, found)) {
        return;
    }
    constexpr int kNear = 30;
    const std::string expires = fields::Text(trust, "expires");
    const std::string text = "trust document " + fields::Text(trust, "number") + ", " +
                             std::to_string(fields::List(trust, "keys").size()) + " keys";
    const std::string advice = "sign a newer one (arbor-pkg trust), and bring it: arborctl trust apply FILE";
    if (expires.empty() || expires >= DateAfter(kNear)) {
        found.Ok(kPoint, text + (expires.empty() ? "" : ", meant to be used until " + expires));
    } else if (expires < DateAfter(0)) {
        found.Warning(kPoint, text + ", was meant to be used until " + expires + ", and still counts", advice);
    } else {
        found.Warning(kPoint, text + ", is meant to be used until " + expires, advice);
    }
}

/// The document on the disk as the host would tell it; null, told why, when there is none to look at.
json::value FromDisk(const std::string& folder, const std::string& state, Findings& found) {
    std::error_code error;
    if (const fs::directory_iterator files(folder, error); error) {
        const bool isForbidden = error == std::errc::permission_denied;
        found.Add({kPoint, isForbidden ? State::kUnknown : State::kFault,
                   folder + ": " + (isForbidden ? "not readable for you" : error.message()),
                   isForbidden ? "sudo arborctl doctor" : "put arbor-trust.json, or certificates, there"});
        return {};
    }
    const auto document = ReadTrustInForce(folder, state);
    if (!document) {
        found.Fault(kPoint, document.error().text, "put the newest whole trust document there");
        return {};
    }
    if (!*document) {
        return json::object{{"trustedSigners", folder}, {"number", 0}};
    }
    json::array keys;
    for (const ZTrustKey& key : (*document)->keys) {
        json::array roles;
        for (const ZTrustRole role : key.roles) {
            roles.emplace_back(ToText(role));
        }
        keys.push_back(json::object{{"roles", roles}});
    }
    return json::object{{"trustedSigners", folder},
                        {"number", (*document)->number},
                        {"expires", (*document)->expires},
                        {"trustThreshold", (*document)->Threshold(ZTrustRole::Trust)},
                        {"releaseThreshold", (*document)->Threshold(ZTrustRole::Release)},
                        {"keys", keys}};
}

}  // namespace

void LookAtTrust(const Facts& facts, Findings& found) {
    const std::string set = facts.Setting("ZNodeArborInstall", "TrustedSigners");
    if (!facts.trust.is_object() && !facts.HasGraph()) {
        found.Unknown(kPoint, "neither the host nor its graph file tells", "start the host, and look again");
        return;
    }
    if (fields::Text(facts.trust, "trustedSigners", set).empty()) {
        found.Warning(kPoint, "the policy is off: everybody's packages run",
                      "set TrustedSigners of the update node in " + facts.graphFile);
        return;
    }
    const json::value trust =
        facts.trust.is_object() ? facts.trust : FromDisk(set, facts.Setting("ZNodeArborInstall", "TrustState"), found);
    if (!trust.is_object()) {
        return;
    }
    if (const std::string problem = fields::Text(trust, "problem"); !problem.empty()) {
        found.Fault(kPoint, problem,
                    "put arbor-trust.json, or certificates, into " + fields::Text(trust, "trustedSigners"));
    } else if (fields::Number(trust, "number") > 0) {
        LookAtDocument(trust, found);
    } else {
        found.Ok(kPoint, "the certificates in " + fields::Text(trust, "trustedSigners") + " decide");
    }
}

}  // namespace arborctl::doctor
