#include "StatusReport.h"

#include <boost/json.hpp>

#include "LoadedVersion.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "ZMessages/Messages.h"
#include "text/Utf8.h"

namespace json = boost::json;

namespace gateway {

namespace {

json::value Text(const ZString& text) {
    return json::string(std::string_view(text));
}

json::value TextOrNull(const std::optional<std::string>& text) {
    return text ? json::value(json::string(*text)) : json::value();
}

json::value Device(const std::shared_ptr<ZMessage>& answer) {
    const auto device = cast_shared<ZDevicePropertiesMsg>(answer);
    if (!device) {
        return nullptr;
    }
    return json::object{{"model", Text(device->m_Model)},
                        {"serialNumber", Text(device->m_SerialNumber)},
                        {"board", Text(device->m_Board)}};
}

json::value Drives(const std::shared_ptr<ZMessage>& answer) {
    const auto storage = cast_shared<StorageDevicesMsg>(answer);
    if (!storage) {
        return nullptr;
    }
    json::array drives;
    for (const ZString& drive : storage->m_Devices) {
        drives.push_back(Text(drive));
    }
    return drives;
}

json::value InstalledVersion(const std::shared_ptr<ZMessage>& answer) {
    const auto version = cast_shared<ZVersionInfoMsg>(answer);
    return version && version->m_bSuccess && !version->m_Version.empty() ? Text(version->m_Version) : json::value();
}

json::value Updates(const std::shared_ptr<ZMessage>& answer) {
    const auto found = cast_shared<ZMessageArray>(answer);
    if (!found) {
        return nullptr;
    }
    json::array updates;
    for (const auto& message : found->m_Messages) {
        const auto version = cast_shared<ZVersionInfoMsg>(message);
        if (version && version->m_bSuccess) {
            updates.push_back(json::object{{"version", Text(version->m_Version)}});
        }
    }
    return updates;
}

json::value Progress(const std::string& last) {
    return last.empty() ? json::value() : json::parse(last);
}

std::optional<bool> InProgress(const std::shared_ptr<ZMessage>& answer) {
    const auto state = cast_shared<ZSystemUpdateInProgressMsg>(answer);
    return state ? std::optional<bool>(state->m_bUpdateInProgress) : std::nullopt;
}

}  // namespace

std::shared_ptr<ZMessage> StatusReport::Ask(ZEndpointType type, const char* keyword,
                                            const std::shared_ptr<ZMessage>& request,
                                            Clock::time_point deadline) const {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    std::shared_ptr<ZMessage> answer;
    if (left.count() > 0) {
        m_bus.PublishWithOutcome(m_bus.GetEndpoint(type, keyword, 0), request, &answer, {true, false, left});
    }
    return answer;
}

std::string StatusReport::Document(std::chrono::milliseconds patience) const {
    const auto deadline = Clock::now() + patience;
    const auto ask = [&](ZEndpointType type, const char* keyword) {
        return Ask(type, keyword, Z_MAKE(ZGenericRequestMsg), deadline);
    };
    // The services first: they answer at once, while the node that installs may be busy for longer than we wait.
    const json::value device = Device(ask(ZEndpointType::GraphService, "deviceProps"));
    const json::value drives = Drives(ask(ZEndpointType::GraphService, "getdevices"));
    const auto inProgress = InProgress(
        Ask(ZEndpointType::GraphService, "getUpdateInProgress", Z_MAKE(ZSystemUpdateInProgressRequestMsg), deadline));
    const json::object document{
        {"version", TextOrNull(LoadedText("GetVersionTag"))},
        {"hash", TextOrNull(LoadedText("GetVersionHash"))},
        {"installedVersion", InstalledVersion(ask(ZEndpointType::ClientRequest, "getinstalledversioninfo"))},
        {"updateInProgress", inProgress ? json::value(*inProgress) : json::value()},
        {"device", device},
        {"updates", Updates(ask(ZEndpointType::ClientRequest, "findupdates"))},
        {"progress", Progress(m_events.LastProgress())},
        {"drives", drives},
    };
    return text::ValidUtf8(json::serialize(document));
}

std::optional<bool> StatusReport::UpdateInProgress(std::chrono::milliseconds patience) const {
    return InProgress(Ask(ZEndpointType::GraphService, "getUpdateInProgress", Z_MAKE(ZSystemUpdateInProgressRequestMsg),
                          Clock::now() + patience));
}

}  // namespace gateway
