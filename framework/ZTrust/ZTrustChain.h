#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ZTrust/ZTrustDocument.h"

/// Trust documents whose numbers grow by one, with their signatures: what an instrument that has one of them needs to
/// follow to the last. A value; nothing here reads files.
class ZTrustChain {
public:
    static constexpr std::size_t kLargest = std::size_t{48} * 1024;  // bytes, without the line feed that may end a file

    struct Signature {
        std::string key;  ///< ZTrustKey::id
        std::string bytes;
    };
    struct Entry {
        ZTrustDocument document;
        std::vector<Signature> signatures;

        /// How many of the signers' trust keys have signed the document.
        std::uint32_t CountSigned(const ZTrustDocument& signers) const;
    };

    /// Reads a chain; one line feed may stand at its end. An error says which member is wrong. Whether a signature fits
    /// is not looked at.
    static ZResult<ZTrustChain> Parse(std::string_view text);

    const std::vector<Entry>& Entries() const { return m_entries; }
    const ZTrustDocument& Last() const { return m_entries.back().document; }
    /// The text that was read, to be kept.
    const std::string& Text() const { return m_text; }

    /// Whether the last document carries as many signatures of its own trust keys as it asks for; an error says how
    /// many there are.
    ZResult<void> CheckLast() const;
    /// Whether the last document is to be in force in place of `inForce` (nullptr: none is): true, or false when it is
    /// that one. An error says why it must not: all signatures and numbers in between have to be right.
    ZResult<bool> ContinuesFrom(const ZTrustDocument* inForce) const;

private:
    std::string m_text;
    std::vector<Entry> m_entries;
};
