#include "ZNodeArborInstallCfg.h"

#include "ZShared/ZPlatform.h"

Z_IMPLEMENT(ZNodeArborInstallCfg)

bool ZNodeArborInstallCfg::Serialize(ZCommStream& stream) const {
    ZFields::Write(*this, stream, Fields());
    return true;
}

bool ZNodeArborInstallCfg::Deserialize(ZCommStream& stream) {
    ZFields::Read(*this, stream, Fields());
    if (!m_ArchiveDevice.empty()) {
        m_archiveRoot = ZPlatform::GetMountPointFromDevice(ToStdString(m_ArchiveDevice));
        if (!m_ArchiveDir.empty()) {
            m_archiveRoot /= m_ArchiveDir;  // appending nothing would add a trailing separator
        }
    }
    return true;
}

void ZNodeArborInstallCfg::CloneDataMembers(const ZMessage& from) {
    const auto& other = static_cast<const ZNodeArborInstallCfg&>(from);
    ZFields::Copy(other, *this, Fields());
    m_archiveRoot = other.m_archiveRoot;
}
