#include "ZNodeArborInstallCfg.h"

#include <algorithm>

#include "ZShared/ZPlatform.h"

Z_IMPLEMENT(ZNodeArborInstallCfg)

bool ZNodeArborInstallCfg::Serialize(ZCommStream& stream) const {
    ZFields::Write(*this, stream, Fields());
    return true;
}

bool ZNodeArborInstallCfg::Deserialize(ZCommStream& stream) {
    ZFields::Read(*this, stream, std::tuple_cat(Fields(), FurtherFields()));
    if (!m_ArchiveDevice.empty()) {
        m_archiveMount = ZPlatform::GetMountPointFromDevice(ToStdString(m_ArchiveDevice));
        m_archiveRoot = m_archiveMount;
        // A path that begins with a slash would replace the mount point, and appending nothing add a slash to it.
        if (const auto folder = std::filesystem::path(m_ArchiveDir).relative_path(); !folder.empty()) {
            m_archiveRoot /= folder;
        }
    }
    return true;
}

void ZNodeArborInstallCfg::CloneDataMembers(const ZMessage& from) {
    const auto& other = static_cast<const ZNodeArborInstallCfg&>(from);
    ZFields::Copy(other, *this, std::tuple_cat(Fields(), FurtherFields()));
    m_archiveRoot = other.m_archiveRoot;
    m_archiveMount = other.m_archiveMount;
}

void ZNodeArborInstallCfg::VisitFields(const ZFieldVisitor& visitor) {
    ZFields::Visit(*this, visitor, std::tuple_cat(Fields(), FurtherFields()));
}

bool ZNodeArborInstallCfg::StaysBelow(std::string_view path) {
    const std::filesystem::path parts(path);
    return std::find(parts.begin(), parts.end(), "..") == parts.end();
}

bool ZNodeArborInstallCfg::IsSocketName(std::string_view path) {
    return path.find('/') == std::string_view::npos && StaysBelow(path) && path != ".";
}
