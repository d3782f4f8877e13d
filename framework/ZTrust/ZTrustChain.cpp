#include "ZTrust/ZTrustChain.h"

#include <algorithm>
#include <boost/json.hpp>

#include "StrictJson.h"
#include "ZTrust/PackageHeader.h"

namespace json = boost::json;
using ztrust::Fault;
using ztrust::Members;

namespace {

using Entry = ZTrustChain::Entry;

constexpr std::size_t kMostDocuments = 16;
constexpr std::size_t kMostSignatures = 32;

Entry ReadEntry(const json::value& value) {
    Members members(value, "an entry of \"documents\"");
    auto document = ZTrustDocument::Parse(members.Text("document"));
    if (!document) {
        throw Fault{document.error().text};
    }
    Entry entry{std::move(*document), {}};
    for (const json::value& each : members.List("signatures", 0, kMostSignatures)) {
        Members signature(each, "a signature");
        entry.signatures.push_back(
            {signature.Text("key", &ztrust::IsDigest), signature.Bytes("signature", ztrust::kLargestSignature)});
        signature.End();
    }
    members.End();
    return entry;
}

std::vector<Entry> ReadEntries(std::string_view text) {
    text.remove_suffix(text.ends_with('\n') ? 1 : 0);
    if (text.size() > ZTrustChain::kLargest) {
        throw Fault{"they are larger than " + std::to_string(ZTrustChain::kLargest) + " bytes"};
    }
    const auto value = ztrust::ParseObject(text);
    if (!value) {
        throw Fault{"they are no JSON object"};
    }
    Members members(*value, "the chain");
    std::vector<Entry> entries;
    for (const json::value& each : members.List("documents", 1, kMostDocuments)) {
        entries.push_back(ReadEntry(each));
        const std::uint32_t number = entries.back().document.number;
        if (number != entries.front().document.number + entries.size() - 1) {
            throw Fault{"\"number\" does not grow by one up to " + std::to_string(number)};
        }
    }
    members.End();
    return entries;
}

std::string Numbered(const ZTrustDocument& document) {
    return "number " + std::to_string(document.number);
}

/// Whether as many trust keys of `signers`, which are called `whose`, have signed as these want.
ZResult<void> CheckSigned(const Entry& entry, const ZTrustDocument& signers, const std::string& whose) {
    const std::uint32_t needed = signers.Threshold(ZTrustRole::Trust);
    const std::uint32_t found = entry.CountSigned(signers);
    if (found >= needed) {
        return {};
    }
    return ZError(Numbered(entry.document) + " is signed by " + std::to_string(found) + " of the " +
                  std::to_string(needed) + " trust keys of " + whose + " that are needed");
}

ZResult<void> CheckStep(const ZTrustDocument& before, const Entry& next) {
    const ZTrustDocument& document = next.document;
    if (document.number != before.number + 1) {
        return ZError("it skips a number: " + Numbered(document) + " follows on " + Numbered(before));
    }
    if (auto isSigned = CheckSigned(next, before, Numbered(before)); !isSigned) {
        return isSigned;
    }
    if (auto isSigned = CheckSigned(next, document, "its own"); !isSigned) {
        return isSigned;
    }
    if (document.securityFloor < before.securityFloor) {
        return ZError(Numbered(document) + " goes back: its security floor is " +
                      std::to_string(document.securityFloor) + ", and " + Numbered(before) + " has " +
                      std::to_string(before.securityFloor));
    }
    return {};
}

}  // namespace

std::uint32_t ZTrustChain::Entry::CountSigned(const ZTrustDocument& signers) const {
    const std::string text = document.SignedText();
    return static_cast<std::uint32_t>(std::ranges::count_if(signers.keys, [&](const ZTrustKey& key) {
        return key.Has(ZTrustRole::Trust) && std::ranges::any_of(signatures, [&](const Signature& each) {
                   return each.key == key.id && key.HasSigned(text, each.bytes);
               });
    }));
}

ZResult<ZTrustChain> ZTrustChain::Parse(std::string_view text) {
    try {
        ZTrustChain chain;
        chain.m_entries = ReadEntries(text);
        chain.m_text = text;
        return chain;
    } catch (const Fault& fault) {
        return ZError("the trust documents are damaged: " + fault.text);
    }
}

ZResult<void> ZTrustChain::CheckLast() const {
    return CheckSigned(m_entries.back(), Last(), "its own");
}

ZResult<bool> ZTrustChain::ContinuesFrom(const ZTrustDocument* inForce) const {
    if (inForce == nullptr) {
        return ZError("no trust document is in force here: the first one comes with the system");
    }
    if (Last().number < inForce->number) {
        return ZError("it goes back: it is " + Numbered(Last()) + ", and " + Numbered(*inForce) + " is in force");
    }
    const ZTrustDocument* before = inForce;
    for (const Entry& entry : m_entries) {
        const ZTrustDocument& next = entry.document;
        if (next.number == inForce->number && next.text != inForce->text) {
            return ZError("trust document " + std::to_string(next.number) + " is another one than the one in force");
        }
        if (next.number > inForce->number) {
            if (const auto step = CheckStep(*before, entry); !step) {
                return step.error();
            }
            before = &next;
        }
    }
    return before != inForce;
}
