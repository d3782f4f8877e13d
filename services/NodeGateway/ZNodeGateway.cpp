#include "ZNodeGateway.h"

#include <grp.h>

#include <charconv>

#include "HttpServer.h"
#include "MessageText.h"
#include "Resources.h"
#include "ZCoreConfigs/ZSettings.h"
#include "ZMessages/PeerMessages.h"
#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodeGatewayCfg)
Z_IMPLEMENT(ZNodeGateway)

using namespace gateway;

namespace {

// Beside the threads that open event streams hold and those whose requests wait for answers: for all that ends at once.
constexpr std::size_t kSpareThreads = 8;

std::string CheckedPath(const ZNodeGatewayCfg& config) {
    return AbsolutePath("socketPath", config.m_SocketPath, config.Environment().get()).string();
}

mode_t CheckedMode(const ZString& text) {
    unsigned mode = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), mode, 8);
    if (failure != std::errc() || end != text.data() + text.size() || mode > 0777) {
        throw ZBadSetting("socketMode", text, "a text of octal permission bits, as \"0660\"");
    }
    return mode;
}

std::optional<gid_t> CheckedGroup(const ZString& name) {
    if (name.empty()) {
        return std::nullopt;
    }
    group entry{};
    group* found = nullptr;
    std::vector<char> buffer(65536);
    if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        throw ZBadSetting("socketGroup", name, "the name of a group of this system");
    }
    return entry.gr_gid;
}

HttpServerSettings CheckedSettings(const ZNodeGatewayCfg& config) {
    CheckRange("answerTimeoutSeconds", config.m_AnswerTimeoutSeconds, 1, 3600);
    CheckRange("maxEventClients", config.m_MaxEventClients, 1, 256);
    CheckRange("eventBacklog", config.m_EventBacklog, 1, 65536);
    HttpServerSettings settings;
    settings.path = CheckedPath(config);
    settings.access = {CheckedMode(config.m_SocketMode), CheckedGroup(config.m_SocketGroup)};
    settings.threads = config.m_MaxEventClients + Requests::kAtOnce + kSpareThreads;
    return settings;
}

}  // namespace

/// What the node is made of. The server is the first to go: its threads use the rest.
struct ZNodeGateway::Parts {
    Parts(ZNodeGateway& node, const ZNodeGatewayCfg& config)
        : path(CheckedPath(config)),
          events(config.m_MaxEventClients, config.m_EventBacklog),
          resources(node, std::chrono::seconds(config.m_AnswerTimeoutSeconds), events),
          server(CheckedSettings(config), [this](const HttpRequest& request) { return resources.Handle(request); }) {}

    const std::string path;
    EventHub events;
    Resources resources;
    HttpServer server;
};

ZNodeGateway::ZNodeGateway(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

ZNodeGateway::~ZNodeGateway() = default;

bool ZNodeGateway::OnConfig(const std::shared_ptr<ZMessage>&, const std::shared_ptr<ZConfig>& config) {
    return ReadRecord<ZNodeGatewayCfg>(
        config, [this](const ZNodeGatewayCfg& record) { m_parts = std::make_unique<Parts>(*this, record); });
}

bool ZNodeGateway::InitMessageMap() {
    return ShowAs<InstallProgressMsg>(EventKind::Progress, ZEndpointType::Progress, "") &&
           ShowAs<ZMessageArray>(EventKind::UpdateAvailable, ZEndpointType::GraphService, "updateavailable") &&
           ShowAs<StorageDevicesMsg>(EventKind::StorageDeviceUpdate, ZEndpointType::GraphService,
                                     "storagedeviceupdate") &&
           ShowAs<ZPeerMsg>(EventKind::PeerUpdate, ZEndpointType::GraphService, "peerupdate");
}

template <typename Class>
bool ZNodeGateway::ShowAs(EventKind kind, ZEndpointType type, const char* keyword) {
    return Subscribe(GetEndpoint(type, keyword, 0), [this, kind](const std::shared_ptr<ZMessage>& message) {
        const bool expected = cast_shared<Class>(message) != nullptr;
        if (expected) {
            m_parts->events.Publish(kind, MessageText(*message));
        }
        return expected;
    });
}

bool ZNodeGateway::OnGraphCreated() {
    std::string error;
    if (!m_parts->server.Start(error)) {
        Z_LOG(4, "Can't serve on %s (\"socketPath\"): %s", m_parts->path, error);
        return false;
    }
    Z_LOG(2, "Serving on %s", m_parts->path);
    return true;
}

void ZNodeGateway::OnShutdown() {
    if (m_parts) {
        m_parts->server.Stop();
    }
}
