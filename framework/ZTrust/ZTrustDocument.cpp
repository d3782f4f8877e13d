#include "ZTrust/ZTrustDocument.h"

#include <algorithm>
#include <boost/json.hpp>

#include "PublicKey.h"
#include "StrictJson.h"
#include "ZTrust/Sha256.h"

namespace json = boost::json;
using ztrust::Fault;
using ztrust::Members;

namespace {

constexpr std::uint64_t kHighestNumber = 2'147'483'647;
constexpr std::uint64_t kHighestThreshold = 16;
constexpr std::size_t kMostKeys = 32;
constexpr std::size_t kMostBoards = 16;
constexpr std::size_t kMostRevoked = 128;
constexpr std::size_t kLongestName = 64;
constexpr std::size_t kLargestKey = 1536;  // bytes, which are 2,048 characters of base64
constexpr std::array kRoles{ZTrustRole::Trust, ZTrustRole::Release, ZTrustRole::Development};

std::uint32_t Number(Members& members, const char* key, std::uint64_t least, std::uint64_t most) {
    return static_cast<std::uint32_t>(members.Number(key, least, most));
}

bool IsName(std::string_view text) {
    return !text.empty() && text.size() <= kLongestName &&
           std::ranges::all_of(text, [](char letter) { return letter >= ' ' && letter <= '~'; });
}

/// "YYYY-MM-DD", or nothing.
bool IsDateOrNone(std::string_view text) {
    constexpr std::string_view kPattern = "0000-00-00";
    return text.empty() || std::ranges::equal(text, kPattern, [](char letter, char wanted) {
               return wanted == '-' ? letter == '-' : letter >= '0' && letter <= '9';
           });
}

ZTrustRole ReadRole(const json::value& value) {
    const std::string text = ztrust::TextOf(value, "a role");
    const auto role = std::ranges::find_if(kRoles, [&](ZTrustRole each) { return ToText(each) == text; });
    if (role == kRoles.end()) {
        throw Fault{"\"roles\" holds one that is not known"};
    }
    return *role;
}

std::vector<ZTrustRole> ReadRoles(Members& members) {
    std::vector<ZTrustRole> roles;
    for (const json::value& each : members.List("roles", 1, kRoles.size())) {
        const ZTrustRole role = ReadRole(each);
        if (std::ranges::count(roles, role) != 0) {
            throw Fault{"\"roles\" holds one twice"};
        }
        roles.push_back(role);
    }
    return roles;
}

std::vector<std::string> ReadTexts(Members& members, const char* key, std::size_t most,
                                   bool (*isRight)(std::string_view)) {
    std::vector<std::string> texts;
    for (const json::value& each : members.List(key, 0, most)) {
        texts.push_back(ztrust::TextOf(each, "an entry of \"" + std::string(key) + "\""));
        if (!isRight(texts.back())) {
            throw Fault{"\"" + std::string(key) + "\" holds one that is not as it must be"};
        }
    }
    return texts;
}

ZTrustKey ReadKey(const json::value& value) {
    Members members(value, "a key");
    ZTrustKey key;
    key.name = members.Text("name", &IsName);
    key.publicKey = members.Bytes("publicKey", kLargestKey);
    if (!ztrust::IsStrong(ztrust::ReadPublicKey(key.publicKey).get())) {
        throw Fault{"\"publicKey\" of " + key.name + " is neither Ed25519 nor RSA of at least 2,048 bits"};
    }
    key.id = ztrust::Sha256Hex(key.publicKey);
    key.roles = ReadRoles(members);
    key.boards = ReadTexts(members, "boards", kMostBoards, &ztrust::IsBoard);
    members.End();
    return key;
}

void ReadThresholds(const json::value& value, ZTrustDocument& document) {
    Members members(value, "\"thresholds\"");
    for (const ZTrustRole role : kRoles) {
        document.thresholds.at(static_cast<std::size_t>(role)) = Number(members, ToText(role), 1, kHighestThreshold);
    }
    members.End();
}

void ReadKeys(Members& members, ZTrustDocument& document) {
    for (const json::value& each : members.List("keys", 1, kMostKeys)) {
        ZTrustKey key = ReadKey(each);
        if (document.Find(key.id) != nullptr) {
            throw Fault{"\"keys\" holds one twice"};
        }
        document.keys.push_back(std::move(key));
    }
    const auto signers =
        std::ranges::count_if(document.keys, [](const auto& key) { return key.Has(ZTrustRole::Trust); });
    if (document.Threshold(ZTrustRole::Trust) > static_cast<std::uint32_t>(signers)) {
        throw Fault{"\"thresholds\" asks for more trust keys than there are"};
    }
}

ZTrustDocument Read(std::string_view text) {
    const auto value = ztrust::ParseObject(text);
    if (!value) {
        throw Fault{"it is no JSON object"};
    }
    Members members(*value, "it");
    members.Number("format", 1, 1);
    ZTrustDocument document;
    document.text = text;
    document.number = Number(members, "number", 1, kHighestNumber);
    document.expires = members.Text("expires", &IsDateOrNone);
    document.securityFloor = Number(members, "securityFloor", 0, kHighestNumber);
    ReadThresholds(members.Take("thresholds"), document);
    ReadKeys(members, document);
    document.revoked = ReadTexts(members, "revoked", kMostRevoked, &ztrust::IsDigest);
    members.End();
    return document;
}

}  // namespace

const char* ToText(ZTrustRole role) {
    static constexpr std::array kTexts{"trust", "release", "development"};
    return kTexts.at(static_cast<std::size_t>(role));
}

bool ZTrustKey::Has(ZTrustRole role) const {
    return std::ranges::count(roles, role) != 0;
}

bool ZTrustKey::IsFor(const std::string& board) const {
    return boards.empty() || std::ranges::count(boards, board) != 0;
}

bool ZTrustKey::HasSigned(const std::string& text, const std::string& signature) const {
    return ztrust::SignatureFits(ztrust::ReadPublicKey(publicKey).get(), text, signature);
}

ZResult<ZTrustDocument> ZTrustDocument::Parse(std::string_view text) {
    try {
        return Read(text);
    } catch (const Fault& fault) {
        return ZError("the trust document is damaged: " + fault.text);
    }
}

const ZTrustKey* ZTrustDocument::Find(const std::string& id) const {
    const auto key = std::ranges::find(keys, id, &ZTrustKey::id);
    return key != keys.end() ? &*key : nullptr;
}

bool ZTrustDocument::HasRevoked(const std::string& digest) const {
    return std::ranges::count(revoked, digest) != 0;
}

std::string ZTrustDocument::SignedText() const {
    return "arbor trust document 1\n" + ztrust::Sha256Hex(text) + "\n";
}
