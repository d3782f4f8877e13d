#include "StatusReport.h"

#include <boost/json.hpp>

#include "LoadedVersion.h"
#include "MessageText.h"
#include "NodeBase/ZCommEnabledObject.h"
#include "ZMessages/Messages.h"
#include "ZMessages/TrialMessages.h"
#include "ZShared/ZProcess.h"
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

json::value TextOrNull(const ZString& text) {
    return text.empty() ? json::value() : Text(text);
}

json::value CountOrNull(std::int64_t count) {
    return count < 0 ? json::value() : json::value(count);
}

json::object Package(const ZPackageInfoMsg& package) {
    return {{"version", TextOrNull(package.m_Version)}, {"source", TextOrNull(package.m_Source)},
            {"size", CountOrNull(package.m_Size)},      {"relation", TextOrNull(package.m_Relation)},
            {"board", TextOrNull(package.m_Board)},     {"file", TextOrNull(package.m_File)},
            {"signer", TextOrNull(package.m_Signer)}};
}

json::object RefusedPackage(const ZPackageInfoMsg& package) {
    json::object refused = Package(package);
    refused["reason"] = Text(package.m_Reason);
    refused["errorCode"] = json::string(magic_enum::enum_name(package.m_ErrorCode));
    refused["checkedAt"] = package.m_CheckedAt;
    return refused;
}

json::array List(const ZVector<std::shared_ptr<ZPackageInfoMsg>>& packages,
                 json::object (*shown)(const ZPackageInfoMsg&)) {
    json::array list;
    for (const auto& package : packages) {
        list.push_back(shown(*package));
    }
    return list;
}

/// What the inventory tells beside what is told without one too.
void AddInventory(json::object& document, const std::shared_ptr<ZInventoryMsg>& inventory) {
    if (!inventory) {
        for (const char* key : {"runningSlot", "nextSlot", "nextVersion", "archive", "refused", "updatesFree",
                                "archiveFree", "trustedSigners", "trustDocument", "trustProblem"}) {
            document[key] = nullptr;
        }
        return;
    }
    document["runningSlot"] = TextOrNull(inventory->m_RunningSlot);
    document["nextSlot"] = TextOrNull(inventory->m_NextSlot);
    document["nextVersion"] = TextOrNull(inventory->m_NextVersion);
    document["archive"] = List(inventory->m_Archive, Package);
    document["refused"] = List(inventory->m_Refused, RefusedPackage);
    document["updatesFree"] = CountOrNull(inventory->m_UpdatesFree);
    document["archiveFree"] = CountOrNull(inventory->m_ArchiveFree);
    document["trustedSigners"] = std::string_view(inventory->m_TrustedSigners);
    document["trustDocument"] = inventory->m_TrustDocument;
    document["trustProblem"] = TextOrNull(inventory->m_TrustProblem);
}

json::value Job(const std::shared_ptr<ZOperationMsg>& job) {
    return job ? json::parse(MessageText(*job)) : json::value();
}

json::value Jobs(const std::shared_ptr<ZOperationsMsg>& open) {
    if (!open) {
        return nullptr;
    }
    json::array jobs;
    for (const auto& job : open->m_Operations) {
        jobs.push_back(Job(job));
    }
    return jobs;
}

bool IsInstall(const std::shared_ptr<ZOperationMsg>& job) {
    return job->m_Kind == ZOperationKind::Install || job->m_Kind == ZOperationKind::RemoteInstall;
}

json::value Progress(const std::string& last) {
    return last.empty() ? json::value() : json::parse(last);
}

std::chrono::milliseconds Until(std::chrono::steady_clock::time_point deadline) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
}

}  // namespace

std::shared_ptr<ZMessage> StatusReport::Ask(ZEndpointType type, const char* keyword,
                                            const std::shared_ptr<ZMessage>& request,
                                            Clock::time_point deadline) const {
    const auto left = Until(deadline);
    std::shared_ptr<ZMessage> answer;
    if (left.count() > 0) {
        m_bus.PublishWithOutcome(m_bus.GetEndpoint(type, keyword, 0), request, &answer, {true, false, left});
    }
    return answer;
}

std::string StatusReport::Document(const Peer& peer, std::chrono::milliseconds patience) const {
    const auto deadline = Clock::now() + patience;
    const auto ask = [&](ZEndpointType type, const char* keyword) {
        return Ask(type, keyword, Z_MAKE(ZGenericRequestMsg), deadline);
    };
    // The services first: they answer at once, while the node that installs may be busy for longer than we wait.
    const json::value device = Device(ask(ZEndpointType::GraphService, "deviceProps"));
    const json::value drives = Drives(ask(ZEndpointType::GraphService, "getdevices"));
    const auto open = m_jobs.Open({}, Until(deadline));
    const auto inProgress = InProgress(open, deadline);
    const auto inventory = cast_shared<ZInventoryMsg>(ask(ZEndpointType::GraphService, "inventory"));
    // Without one, as in graphs of old. These leave log lines, which a mere question must not.
    const json::value installed = inventory
                                      ? TextOrNull(inventory->m_InstalledVersion)
                                      : InstalledVersion(ask(ZEndpointType::ClientRequest, "getinstalledversioninfo"));
    const json::value updates = inventory ? json::value(List(inventory->m_Packages, Package))
                                          : Updates(ask(ZEndpointType::ClientRequest, "findupdates"));
    json::object document{
        {"version", TextOrNull(LoadedText("GetVersionTag"))},
        {"hash", TextOrNull(LoadedText("GetVersionHash"))},
        {"installedVersion", installed},
        {"updateInProgress", inProgress ? json::value(*inProgress) : json::value()},
        {"device", device},
        {"updates", updates},
        {"progress", Progress(m_events.LastProgress())},
        {"drives", drives},
        {"operations", Jobs(open)},
    };
    AddInventory(document, inventory);
    const auto slots = ask(ZEndpointType::GraphService, "slots");
    document["trial"] = slots ? json::parse(MessageText(*slots)) : json::value();
    document["historyProblem"] = open ? TextOrNull(open->m_Problem) : json::value();
    document["lastInstall"] = Job(m_jobs.LastEnded(ZOperationKind::Install, Until(deadline)));
    document["you"] = {{"name", AskerOf(peer)}, {"role", RoleName(m_roles.Highest(peer))}};
    document["pageAddress"] = m_pageAddress.empty() ? json::value() : json::value(json::string(m_pageAddress));
    document["bootId"] = BootId();
    document["now"] = MillisecondsNow();
    document["developerMode"] = m_roles.AreNodesOpen();
    return text::ValidUtf8(json::serialize(document));
}

std::optional<bool> StatusReport::InProgress(std::shared_ptr<ZOperationsMsg> open, Clock::time_point deadline) const {
    if (!open) {
        const auto state = cast_shared<ZSystemUpdateInProgressMsg>(Ask(
            ZEndpointType::GraphService, "getUpdateInProgress", Z_MAKE(ZSystemUpdateInProgressRequestMsg), deadline));
        return state ? std::optional<bool>(state->m_bUpdateInProgress) : std::nullopt;
    }
    // An install may have begun before a thousand checks that wait.
    while (open && std::ranges::none_of(open->m_Operations, IsInstall)) {
        if (open->m_Next.empty()) {
            return false;
        }
        open = m_jobs.Open(open->m_Next, Until(deadline));
    }
    return open ? std::optional<bool>(true) : std::nullopt;
}

std::shared_ptr<ZSlotsMsg> StatusReport::Trials(std::chrono::milliseconds patience) const {
    return cast_shared<ZSlotsMsg>(
        Ask(ZEndpointType::GraphService, "slots", Z_MAKE(ZGenericRequestMsg), Clock::now() + patience));
}

std::optional<bool> StatusReport::UpdateInProgress(std::chrono::milliseconds patience) const {
    const auto deadline = Clock::now() + patience;
    return InProgress(m_jobs.Open({}, patience), deadline);
}

}  // namespace gateway
