#pragma once

#include <string>

#include "ZShared/ZAllocator.h"

/// A software version: its text, and the numbers between the dots. Comparing looks at the numbers only, each by its low
/// 32 bits, missing ones as 0: 1.2, 1.2.0 and 01.2 are equal, and an invalid value compares like any other.
class ZSoftwareVersion {
public:
    /// The text "unknown", no components, not valid.
    ZSoftwareVersion();
    /// Never throws for a bad text: m_valid tells.
    explicit ZSoftwareVersion(ZString text);
    ZSoftwareVersion(const ZSoftwareVersion&) = default;
    ZSoftwareVersion(ZSoftwareVersion&&) = default;
    ZSoftwareVersion& operator=(const ZSoftwareVersion&) = default;
    ZSoftwareVersion& operator=(ZSoftwareVersion&&) = default;
    virtual ~ZSoftwareVersion() = default;

    /// Takes a text. Its components are added behind those there are, so this is for a value that has none yet.
    void Set(const ZString& text);
    /// The text exactly as given.
    const char* Get() const { return m_text.c_str(); }
    /// Adds the text's components, one more than it has dots, and sets m_valid.
    void Split(const ZString& text);
    /// The number at the front of a piece, read as leniently as std::stoul does; 0, and m_valid cleared, when there is
    /// none or it is too large.
    std::size_t Convert(std::string piece);

    bool operator==(const ZSoftwareVersion& other) const;
    bool operator!=(const ZSoftwareVersion& other) const;
    bool operator<(const ZSoftwareVersion& other) const;
    bool operator>(const ZSoftwareVersion& other) const;
    /// Not the complement of `<`: looks at the first component only, and is false between two values that have none.
    /// Clients rely on it.
    bool operator>=(const ZSoftwareVersion& other) const;

    ZString m_text;
    ZVector<std::size_t> m_components;
    bool m_valid = false;  ///< every piece of the text began with a number

private:
    std::uint32_t Component(std::size_t position) const;
    int Compare(const ZSoftwareVersion& other) const;
};
