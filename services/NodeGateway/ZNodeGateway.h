#pragma once

#include <sys/types.h>

#include <optional>

#include "NodeBase/ZNode.h"
#include "SystemNames.h"
#include "http/HostNames.h"
#include "http/NetworkSettings.h"

namespace gateway {
struct EventKind;
}

/// Settings of a ZNodeGateway.
class ZNodeGatewayCfg : public ZConfig {
    Z_MESSAGE(ZNodeGatewayCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_SocketPath = "/run/arbor/gateway.sock";
    ZString m_SocketMode = "0660";
    ZString m_SocketGroup;
    std::uint32_t m_AnswerTimeoutSeconds = 30;
    std::uint32_t m_MaxEventClients = 64;
    std::uint32_t m_EventBacklog = 256;
    ZString m_LookGroup;
    ZString m_OperateGroup;
    ZString m_AdministerGroup;
    bool m_bDeveloperMode = false;
    ZString m_Listen;
    ZString m_TokenFile;
    ZString m_CertificateFile;
    ZString m_PrivateKeyFile;
    ZVector<ZString> m_HostNames;
    ZString m_PagePath;

    static constexpr const char* kGroup = "the name of a group of this system";
    static bool IsGroup(std::string_view name) { return gateway::GroupIdOf(name).has_value(); }
    /// The permission bits that a text in octal digits means; none for another text.
    static std::optional<mode_t> ModeOf(std::string_view text);
    /// Of those about the network.
    std::vector<ZSettingError> Conflicts() const override;

    Z_FIELDS(
        Z_FIELD(m_SocketPath).Path().Means("Where the gateway listens."),
        Z_FIELD(m_SocketMode)
            .Checked([](std::string_view text) { return ModeOf(text).has_value(); },
                     "a text of octal permission bits, as \"0660\"", "^[0-7]{1,4}$")
            .Means("The socket's permission bits: who may connect may do all that no group below is named for."),
        Z_FIELD(m_SocketGroup)
            .Checked(&IsGroup, kGroup)
            .OrEmpty()
            .Means("Who beside the owner the bits are for. Empty: the host's group."),
        Z_FIELD(m_AnswerTimeoutSeconds).In(1, 3600).Means("How long a request waits for the graph's answer."),
        Z_FIELD(m_MaxEventClients)
            .In(1, 4096)
            .Means("Event streams at once. One user may have three quarters of them."),
        Z_FIELD(m_EventBacklog).In(1, 65'536).Means("Events that wait for one client."),
        Z_FIELD(m_LookGroup)
            .Checked(&IsGroup, kGroup)
            .OrEmpty()
            .Means("Who may see state, jobs, events and log, and ask. Empty: whoever can connect."),
        Z_FIELD(m_OperateGroup)
            .Checked(&IsGroup, kGroup)
            .OrEmpty()
            .Means("Who may install, transfer, upload, scan and check, and end jobs of their own; and look. Empty: "
                   "whoever may look."),
        Z_FIELD(m_AdministerGroup)
            .Checked(&IsGroup, kGroup)
            .OrEmpty()
            .Means("Who may pair devices and end others' jobs; and operate. Empty: whoever may operate."),
        Z_FIELD(m_bDeveloperMode)
            .Means("For development only: people may send the messages that nodes tell each other, such as "
                   "\"newFile\", by which a device runs any file that is named. Told at every start."),
        Z_FIELD(m_Listen)
            .Checked(&gateway::CanListenAt, "an address with its port, as \"127.0.0.1:8080\" or \"[::1]:8080\"",
                     "^([0-9.]+|\\[[0-9A-Fa-f:.]+\\]):[1-9][0-9]{0,4}$")
            .OrEmpty()
            .Means("Where the gateway listens on the network, beside its socket. Empty: nowhere. Without "
                   "\"certificateFile\" only this machine's own addresses (127.0.0.1, ::1).",
                   "\"127.0.0.1:8080\""),
        Z_FIELD(m_TokenFile)
            .Path()
            .OrEmpty()
            .Means("Who may ask there: lines \"NAME ROLE TOKEN\" (docs/access.md, \"Over the network\"), in a file "
                   "that only its owner may use.",
                   "\"/etc/arbor/tokens\""),
        Z_FIELD(m_CertificateFile)
            .Path()
            .OrEmpty()
            .Means("TLS: the certificate, with those that lead to its root (PEM). Empty: without TLS."),
        Z_FIELD(m_PrivateKeyFile)
            .Path()
            .OrEmpty()
            .Means("TLS: the certificate's key, without a password, in a file that only its owner may use (PEM)."),
        Z_FIELD(m_HostNames)
            .Checked(&gateway::HostNames::IsName, "a host's name, without a port")
            .Means("The names by which this device is asked there, beside the address itself and \"localhost\".",
                   "[\"device.example\"]"),
        Z_FIELD(m_PagePath)
            .Path()
            .OrEmpty()
            .Means("The folder of the page for people, which is read at the start; one without an \"index.html\": no "
                   "page. Empty: the one that was installed with this library."))
};

/// The graph's door for people and their tools: requests and notifications of the bus over HTTP on a UNIX socket, what
/// happens as server-sent events, and the state, log, metrics and description of it all. It serves from the time that
/// the graph exists until it shuts down.
class ZNodeGateway : public ZNode {
    Z_CLASS(ZNodeGateway, ZNode)
public:
    explicit ZNodeGateway(const ZString& name);
    ~ZNodeGateway() override;

    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    bool OnGraphCreated() override;
    bool OnShutdownRequest(bool forced) override;
    void OnShutdown() override;

private:
    struct Parts;
    /// Tells the listeners of every such event.
    bool Show(const gateway::EventKind& kind);

    std::unique_ptr<Parts> m_parts;
};
