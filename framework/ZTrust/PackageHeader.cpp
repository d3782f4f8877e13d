#include "ZTrust/PackageHeader.h"

#include <algorithm>
#include <boost/json.hpp>
#include <limits>
#include <optional>

#include "text/Base64.h"

namespace json = boost::json;

namespace ztrust {

namespace {

constexpr double kLongestSilence = 3600;  // seconds
constexpr std::uint64_t kHighestSecurityNumber = 2'147'483'647;
constexpr std::size_t kMostSignatures = 16;
constexpr std::size_t kLargestSignature = 2048;  // RSA of 16,384 bits, the largest key that OpenSSL takes
constexpr std::size_t kDigestDigits = 64;

/// What is wrong with a text; thrown from one row to the function that reads the whole.
struct Fault {
    std::string text;
};

ZVerdict Damaged(const std::string& why) {
    return {ZVerdictCode::Damaged, why};
}

bool IsDigit(char letter) {
    return letter >= '0' && letter <= '9';
}

bool IsLetterOrDigit(char letter) {
    return IsDigit(letter) || (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z');
}

/// Up to eight numbers of up to nine digits, separated by dots.
bool IsVersion(std::string_view text) {
    std::size_t numbers = 1;
    std::size_t digits = 0;
    for (const char letter : text) {
        if (IsDigit(letter)) {
            ++digits;
        } else if (letter == '.' && digits > 0) {
            ++numbers;
            digits = 0;
        } else {
            return false;
        }
        if (digits > 9 || numbers > 8) {
            return false;
        }
    }
    return digits > 0;
}

bool IsBoard(std::string_view text) {
    return !text.empty() && text.size() <= 64 && IsLetterOrDigit(text.front()) &&
           std::ranges::all_of(text, [](char letter) {
               return IsLetterOrDigit(letter) || letter == '.' || letter == '_' || letter == '-';
           });
}

bool IsAscii(std::string_view text) {
    return std::ranges::all_of(text, [](char letter) { return static_cast<unsigned char>(letter) < 0x80; });
}

bool IsDigest(std::string_view text) {
    return text.size() == kDigestDigits &&
           std::ranges::all_of(text, [](char letter) { return IsDigit(letter) || (letter >= 'a' && letter <= 'f'); });
}

/// An object whose members are taken one by one, each once; what is left over is a fault.
class Members {
public:
    Members(const json::value& value, const char* name) : m_name(name) {
        if (!value.is_object()) {
            throw Fault{m_name + " is no object"};
        }
        m_object = &value.get_object();
    }

    const json::value* Optional(const char* key) {
        const json::value* const value = m_object->if_contains(key);
        m_taken += value != nullptr ? 1 : 0;
        return value;
    }
    const json::value& Take(const char* key) {
        const json::value* const value = Optional(key);
        if (value == nullptr) {
            throw Fault{m_name + " lacks \"" + key + "\""};
        }
        return *value;
    }
    std::string Text(const char* key) {
        const json::value& value = Take(key);
        if (!value.is_string()) {
            throw Fault{"\"" + std::string(key) + "\" is no text"};
        }
        return std::string(value.get_string());
    }
    std::string Text(const char* key, bool (*isRight)(std::string_view)) {
        std::string text = Text(key);
        if (!isRight(text)) {
            throw Fault{"\"" + std::string(key) + "\" is not as it must be"};
        }
        return text;
    }
    std::uint64_t Number(const char* key, std::uint64_t highest) {
        const json::value& value = Take(key);
        const bool isNegative = value.is_int64() && value.get_int64() < 0;
        if (isNegative || !(value.is_int64() || value.is_uint64()) || value.to_number<std::uint64_t>() > highest) {
            throw Fault{"\"" + std::string(key) + "\" is no whole number up to " + std::to_string(highest)};
        }
        return value.to_number<std::uint64_t>();
    }
    ZPackageSection Section(const char* key) {
        Members members(Take(key), key);
        ZPackageSection section;
        section.size = members.Number("size", std::numeric_limits<std::int64_t>::max());
        section.sha256 = members.Text("sha256", &IsDigest);
        members.End();
        return section;
    }
    void End() const {
        if (m_taken != m_object->size()) {
            throw Fault{m_name + " holds members that are not known"};
        }
    }

private:
    std::string m_name;
    const json::object* m_object = nullptr;
    std::size_t m_taken = 0;
};

/// One object in ASCII, without anything around it; others would read bytes beyond these in their own ways.
std::optional<json::value> Parse(std::string_view text) {
    const bool isPlain = text.starts_with('{') && text.ends_with('}') && IsAscii(text);
    boost::system::error_code error;
    json::value value = isPlain ? json::parse(text, error) : json::value();
    if (!isPlain || error) {
        return std::nullopt;
    }
    return value;
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
    header.code = members.Section("code");
    if (header.code.size > kLargestCode) {
        throw Fault{"its code is larger than 4 MiB"};
    }
    package.payload = members.Section("payload");
    if (format == 1) {
        package.signatures.push_back({members.Text("signer", &IsAscii), "", ""});
    } else {
        package.securityNumber = static_cast<std::uint32_t>(members.Number("securityNumber", kHighestSecurityNumber));
        if (const json::value* const trust = members.Optional("trust"); trust != nullptr && !trust->is_object()) {
            throw Fault{"\"trust\" is no object"};
        }
    }
    members.End();
    return header;
}

ZPackageSignature ReadSignature(const json::value& value) {
    Members members(value, "a signature");
    ZPackageSignature signature;
    signature.key = members.Text("key", &IsDigest);
    std::vector<char> bytes;
    if (!text::DecodeBase64(members.Text("signature"), bytes) || bytes.empty() || bytes.size() > kLargestSignature) {
        throw Fault{"a signature is no base64 of at most 2,048 bytes"};
    }
    signature.bytes.assign(bytes.begin(), bytes.end());
    if (members.Optional("certificate") != nullptr) {
        Members again(value, "a signature");
        signature.certificate = again.Text("certificate");
    }
    members.End();
    return signature;
}

}  // namespace

ZPackage::Result<Header> ReadHeader(std::string_view line) {
    const auto document = Parse(line);
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
    const auto document = Parse(line);
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
        package.securityNumber = static_cast<std::uint32_t>(members.Number("securityNumber", kHighestSecurityNumber));
        package.payload = members.Section("file");
        members.End();
        return package;
    } catch (const Fault& fault) {
        return Damaged("the signature beside it is damaged: " + fault.text);
    }
}

ZPackage::Result<std::vector<ZPackageSignature>> ReadSignatures(std::string_view text) {
    const auto document = Parse(text);
    if (!document) {
        return Damaged("its signatures are damaged: they are no JSON");
    }
    try {
        Members members(*document, "the trailer");
        const json::value& list = members.Take("signatures");
        members.End();
        if (!list.is_array() || list.get_array().empty() || list.get_array().size() > kMostSignatures) {
            throw Fault{"there must be 1 to 16"};
        }
        std::vector<ZPackageSignature> signatures;
        for (const json::value& entry : list.get_array()) {
            signatures.push_back(ReadSignature(entry));
        }
        return signatures;
    } catch (const Fault& fault) {
        return Damaged("its signatures are damaged: " + fault.text);
    }
}

}  // namespace ztrust
