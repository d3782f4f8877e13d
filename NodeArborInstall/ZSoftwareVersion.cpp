#include "ZSoftwareVersion.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

ZSoftwareVersion::ZSoftwareVersion() : m_text("unknown") {}

ZSoftwareVersion::ZSoftwareVersion(ZString text) : m_text(std::move(text)) {
    Split(m_text);
}

void ZSoftwareVersion::Set(const ZString& text) {
    m_text = text;
    Split(text);
}

std::size_t ZSoftwareVersion::Convert(std::string piece) {
    // std::stoul's rules without its exceptions: a hostile text has a million pieces that are no number.
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(piece.c_str(), &end, 10);
    if (end == piece.c_str() || errno == ERANGE) {
        m_valid = false;
        return 0;
    }
    return value;
}

void ZSoftwareVersion::Split(const ZString& text) {
    m_valid = true;
    std::size_t position = 0;
    for (std::size_t dot = text.find('.'); dot != ZString::npos; dot = text.find('.', position)) {
        m_components.push_back(Convert(ToStdString(text.substr(position, dot - position))));
        position = dot + 1;
        if (position >= text.size()) {
            break;
        }
    }
    m_components.push_back(Convert(ToStdString(text.substr(std::min(position, text.size())))));
}

std::uint32_t ZSoftwareVersion::Component(std::size_t position) const {
    return position < m_components.size() ? static_cast<std::uint32_t>(m_components[position]) : 0;
}

int ZSoftwareVersion::Compare(const ZSoftwareVersion& other) const {
    const std::size_t count = std::max(m_components.size(), other.m_components.size());
    for (std::size_t position = 0; position < count; ++position) {
        const std::uint32_t left = Component(position);
        const std::uint32_t right = other.Component(position);
        if (left != right) {
            return left < right ? -1 : 1;
        }
    }
    return 0;
}

bool ZSoftwareVersion::operator==(const ZSoftwareVersion& other) const {
    return Compare(other) == 0;
}
bool ZSoftwareVersion::operator!=(const ZSoftwareVersion& other) const {
    return Compare(other) != 0;
}
bool ZSoftwareVersion::operator<(const ZSoftwareVersion& other) const {
    return Compare(other) < 0;
}
bool ZSoftwareVersion::operator>(const ZSoftwareVersion& other) const {
    return Compare(other) > 0;
}

bool ZSoftwareVersion::operator>=(const ZSoftwareVersion& other) const {
    if (other.m_components.empty()) {
        return !m_components.empty();
    }
    return Component(0) >= other.Component(0);
}
