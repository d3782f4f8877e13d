#include "ZNodeDeviceProps.h"

#include <unistd.h>

#include <array>

#include "ZShared/ZLog.h"
#include "ZShared/ZPlatform.h"

Z_IMPLEMENT(ZNodeDevicePropsCfg)
Z_IMPLEMENT(ZNodeDeviceProps)

namespace {

ZString HostName() {
    std::array<char, 256> name{};  // the system's limit is 64; a name that is cut is still terminated
    return ::gethostname(name.data(), name.size() - 1) == 0 ? ZString(name.data()) : ZString();
}

}  // namespace

ZNodeDeviceProps::ZNodeDeviceProps(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

bool ZNodeDeviceProps::OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>& config) {
    return ReadRecord<ZNodeDevicePropsCfg>(
        config, [this](const ZNodeDevicePropsCfg& record) { m_deviceType = record.m_DeviceType; });
}

bool ZNodeDeviceProps::InitMessageMap() {
    return Subscribe(GetEndpoint(ZEndpointType::GraphService, "deviceProps", 0),
                     [this](std::shared_ptr<ZMessage>& request) { return OnDeviceProps(request); });
}

bool ZNodeDeviceProps::OnDeviceProps(const std::shared_ptr<ZMessage>& request) {
    const auto properties = ZMakeShared<ZDevicePropertiesMsg>();
    properties->m_DeviceType = m_deviceType;
    properties->m_HostName = HostName();
    ReadIdentity(*properties);
    return PublishResponse(request, properties);
}

void ZNodeDeviceProps::ReadIdentity(ZDevicePropertiesMsg& properties) const {
    // What can't be read stays empty: the platform has logged why.
    ZPlatform::ReadSerialNumber(properties.m_SerialNumber);
    ZPlatform::ReadBoard(properties.m_Board);
    if (!ZPlatform::ReadModel(properties.m_Model)) {
        return;
    }
    if (const auto model = magic_enum::enum_cast<ZDeviceModel>(std::string_view(properties.m_Model))) {
        properties.m_DeviceModel = *model;
    } else {
        Z_LOG(3, "The model \"%s\" is none of the known ones", properties.m_Model);
    }
}
