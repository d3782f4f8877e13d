#include "ZTrust/PackageHeader.h"

#include <boost/json.hpp>
#include <limits>
#include <optional>

#include "StrictJson.h"

namespace json = boost::json;

namespace ztrust {

namespace {

constexpr double kLongestSilence = 3600;  // seconds
constexpr std::uint64_t kHighestSecurityNumber = 2'147'483'647;
constexpr std::size_t kMostSignatures = 16;

ZVerdict Damaged(const std::string& why) {
    return {ZVerdictCode::Damaged, why};
}

std::uint32_t SecurityNumber(Members& members) {
    return static_cast<std::uint32_t>(members.Number("securityNumber", 0, kHighestSecurityNumber));
}

ZPackageSection Section(Members& package, const char* key) {
    Members members(package.Take(key), key);
    ZPackageSection section;
    section.size = members.Number("size", 0, std::numeric_limits<std::int64_t>::max());
    section.sha256 = members.Text("sha256", &IsDigest);
    members.End();
    return section;
}

/// The format that a description says it has; 0 when that is none.
std::int64_t FormatOf(const std::optional<json::value>& document) {
    const json::value* const format = document ? document->get_object().if_contains("format") : nullptr;
    return format != nullptr && format->is_int64() ? format->get_int64() : 0;
}

Header FormatOfHeader(const json::value& document, int format) {
    Header header;
    ZPackage& package = header.package;
    package.format = format;
    Members members(document, "the header");
    members.Take("format");
    package.version = members.Text("version", &IsVersion);
    package.board = members.Text("board", &IsBoard);
    members.Text("installerVersion", &IsVersion);
    const json::value& silence = members.Take("silentSeconds");
    if (!silence.is_number() || !(silence.to_number<double>() >= 0 && silence.to_number<double>() <= kLongestSilence)) {
        throw Fault{"\"silentSeconds\" is no number from 0 to 3600"};
    }
    header.code = Section(members, "code");
    if (header.code.size > kLargestCode) {
        throw Fault{"its code is larger than 4 MiB"};
    }
    package.payload = Section(members, "payload");
    if (format == 1) {
        package.signatures.push_back({members.Text("signer", &IsAscii), "", ""});
    } else {
        package.securityNumber = SecurityNumber(members);
        if (const json::value* const trust = members.Optional("trust")) {
            if (!trust->is_object()) {
                throw Fault{"\"trust\" is no object"};
            }
            package.trust = json::serialize(*trust);
        }
    }
    members.End();
    return header;
}

ZPackageSignature ReadSignature(const json::value& value) {
    Members members(value, "a signature");
    ZPackageSignature signature;
    signature.key = members.Text("key", &IsDigest);
    signature.bytes = members.Bytes("signature", kLargestSignature);
    if (const json::value* const certificate = members.Optional("certificate")) {
        signature.certificate = TextOf(*certificate, "\"certificate\"");
    }
    members.End();
    return signature;
}

}  // namespace

ZPackage::Result<Header> ReadHeader(std::string_view line) {
    const auto document = ParseObject(line);
    const std::int64_t format = FormatOf(document);
    if (format != 1 && format != 2) {
        return ZVerdict{ZVerdictCode::NotPackage, "it is no package of a format that is known"};
    }
    try {
        return FormatOfHeader(*document, static_cast<int>(format));
    } catch (const Fault& fault) {
        return Damaged("the package's header is damaged: " + fault.text);
    }
}

ZPackage::Result<ZPackage> ReadDescription(std::string_view line) {
    const auto document = ParseObject(line);
    if (FormatOf(document) != 2) {
        return ZVerdict{ZVerdictCode::NotPackage, "what lies beside it is no signature of a format that is known"};
    }
    try {
        Members members(*document, "the first line");
        members.Take("format");
        ZPackage package;
        package.isDetached = true;
        package.format = 2;
        package.version = members.Text("version", &IsVersion);
        package.board = members.Text("board", &IsBoard);
        package.securityNumber = SecurityNumber(members);
        package.payload = Section(members, "file");
        members.End();
        return package;
    } catch (const Fault& fault) {
        return Damaged("the signature beside it is damaged: " + fault.text);
    }
}

ZPackage::Result<std::vector<ZPackageSignature>> ReadSignatures(std::string_view text) {
    const auto document = ParseObject(text);
    if (!document) {
        return Damaged("its signatures are damaged: they are no JSON");
    }
    try {
        Members members(*document, "the trailer");
        const json::array& list = members.List("signatures", 1, kMostSignatures);
        members.End();
        std::vector<ZPackageSignature> signatures;
        for (const json::value& entry : list) {
            signatures.push_back(ReadSignature(entry));
        }
        return signatures;
    } catch (const Fault& fault) {
        return Damaged("its signatures are damaged: " + fault.text);
    }
}

}  // namespace ztrust
