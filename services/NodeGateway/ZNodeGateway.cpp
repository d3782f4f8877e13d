#include "ZNodeGateway.h"

#include <algorithm>
#include <charconv>

#include "MessageText.h"
#include "Resources.h"
#include "ZShared/ZLog.h"
#include "http/HttpServer.h"

Z_IMPLEMENT(ZNodeGatewayCfg)
Z_IMPLEMENT(ZNodeGateway)

using namespace gateway;

namespace {

HttpServerSettings ServerSettings(const ZNodeGatewayCfg& config, const Roles& roles) {
    HttpServerSettings settings;
    settings.path = ToStdString(config.m_SocketPath);
    settings.access = {*ZNodeGatewayCfg::ModeOf(config.m_SocketMode), GroupIdOf(config.m_SocketGroup)};
    settings.streams = config.m_MaxEventClients;
    settings.groups = roles.Groups();
    if (!config.m_Listen.empty()) {
        settings.network = NetworkSettings{ToStdString(config.m_Listen),
                                           ToStdString(config.m_TokenFile),
                                           ToStdString(config.m_CertificateFile),
                                           ToStdString(config.m_PrivateKeyFile),
                                           {config.m_HostNames.begin(), config.m_HostNames.end()}};
    }
    return settings;
}

/// What a browser of another machine is told; empty: nothing listens on the network.
std::string NetworkAddress(const ZNodeGatewayCfg& config) {
    const std::string_view listen = config.m_Listen;
    if (listen.empty()) {
        return {};
    }
    const std::string host = config.m_HostNames.empty() ? std::string(listen.substr(0, listen.rfind(':')))
                                                        : ToStdString(config.m_HostNames.front());
    return (config.m_CertificateFile.empty() ? "http://" : "https://") + host +
           std::string(listen.substr(listen.rfind(':'))) + '/';
}

RoleGroups GroupsOf(const ZNodeGatewayCfg& config) {
    RoleGroups groups;
    groups.look = ToStdString(config.m_LookGroup);
    groups.operate = ToStdString(config.m_OperateGroup);
    groups.administer = ToStdString(config.m_AdministerGroup);
    groups.nodesAreOpen = config.m_bDeveloperMode;
    return groups;
}

}  // namespace

std::optional<mode_t> ZNodeGatewayCfg::ModeOf(std::string_view text) {
    unsigned mode = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), mode, 8);
    const bool good = failure == std::errc() && end == text.data() + text.size() && mode <= 0777;
    return good ? std::optional<mode_t>(mode) : std::nullopt;
}

std::vector<ZSettingError> ZNodeGatewayCfg::Conflicts() const {
    std::vector<ZSettingError> errors;
    const auto unless = [&](bool good, const char* key, const char* why) {
        if (!good) {
            errors.push_back({key, '"' + std::string(key) + "\" " + why});
        }
    };
    const bool encrypts = !m_CertificateFile.empty();
    unless(m_Listen.empty() || encrypts || IsLoopback(m_Listen), "listen",
           "is an address that other machines reach; that takes a \"certificateFile\"");
    unless(m_Listen.empty() || !m_TokenFile.empty(), "listen", "takes a \"tokenFile\" that says who may ask");
    unless(!encrypts || !m_PrivateKeyFile.empty(), "certificateFile", "takes its \"privateKeyFile\"");
    unless(encrypts || m_PrivateKeyFile.empty(), "privateKeyFile", "takes its \"certificateFile\"");
    return errors;
}

/// What the node is made of. The server is the first to go: its threads use the rest.
struct ZNodeGateway::Parts {
    Parts(ZNodeGateway& node, const ZNodeGatewayCfg& config, Resources::Graph graph)
        : where(config.m_SocketPath + (config.m_Listen.empty() ? "" : " and " + config.m_Listen) +
                (config.m_CertificateFile.empty() ? "" : " (TLS)")),
          events(config.m_MaxEventClients, config.m_EventBacklog),
          resources(node, std::chrono::seconds(config.m_AnswerTimeoutSeconds), events, GroupsOf(config),
                    std::move(graph), PageFiles::Read(ToStdString(config.m_PagePath)), NetworkAddress(config)),
          server(ServerSettings(config, resources.Who()), resources, events.Ready()) {}

    const std::string where;
    EventHub events;
    Resources resources;
    HttpServer server;
};

ZNodeGateway::ZNodeGateway(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

ZNodeGateway::~ZNodeGateway() = default;

bool ZNodeGateway::OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) {
    const auto core = cast_shared<ZCoreConfigParams>(message);
    return ReadRecord<ZNodeGatewayCfg>(config, [&](const ZNodeGatewayCfg& record) {
        Resources::Graph graph;
        if (core) {
            graph = {.file = ToStdString(core->m_GraphFile), .updatesFolder = core->UpdatesFolder().string()};
        }
        m_parts = std::make_unique<Parts>(*this, record, std::move(graph));
    });
}

bool ZNodeGateway::InitMessageMap() {
    return std::ranges::all_of(Events(), [this](const EventKind& kind) { return Show(kind); }) &&
           Subscribe(GetEndpoint(ZEndpointType::GraphService, "operation", 0),
                     [this](const std::shared_ptr<ZMessage>& message) {
                         const auto job = cast_shared<ZOperationMsg>(message);
                         if (job) {
                             m_parts->resources.OnOperation(*job);
                         }
                         return job != nullptr;
                     });
}

bool ZNodeGateway::Show(const EventKind& kind) {
    const auto expected = ZShared::ZFactory::Instance().Find(kind.className);
    return Subscribe(GetEndpoint(kind.type, kind.keyword, 0),
                     [this, &kind, expected](const std::shared_ptr<ZMessage>& message) {
                         const bool isEvent = message->IsKindOf(expected);
                         if (isEvent) {
                             m_parts->events.Publish(kind, MessageText(*message));
                         }
                         return isEvent;
                     });
}

bool ZNodeGateway::OnGraphCreated() {
    if (const auto started = m_parts->server.Start(); !started) {
        Z_LOG(4, "Can't serve on %s", started.error().text);
        return false;
    }
    Z_LOG(2, "Serving on %s", m_parts->where);
    if (m_parts->resources.Who().AreNodesOpen()) {
        Z_LOG(3,
              "\"developerMode\" is on: who may administer this device may also speak as one of its nodes, and so have "
              "it run any file");
    }
    return true;
}

bool ZNodeGateway::OnShutdownRequest(bool) {
    m_parts->resources.TellOrders();
    return true;
}

void ZNodeGateway::OnShutdown() {
    if (m_parts) {
        m_parts->server.Stop();
    }
}
