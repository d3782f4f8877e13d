#include "ZNodePeer.h"

#include <magic_enum/magic_enum.hpp>

#include <algorithm>

#include "PinFile.h"
#include "ZShared/ZLog.h"

Z_IMPLEMENT(ZNodePeerCfg)
Z_IMPLEMENT(ZNodePeer)

namespace {

// The transport, by its class's name. Another one only has to be a ZNodeLink that is loaded.
constexpr const char* kLinkClass = "ZNodeCommZmq";
// Of each second that a request waits: shorter, so that the requester still hears what became of it.
constexpr std::chrono::milliseconds kAnswerShare{900};
using ErrorCodes = ZFrameworkErrorCodes;

std::shared_ptr<ZNodeLink> MakeLink() {
    return cast_shared<ZNodeLink>(ZShared::ZFactory::Instance().CreateShared(kLinkClass));
}

std::string NameOf(const ZPeerMsg& peer) {
    return std::string(magic_enum::enum_name(peer.m_DeviceModel)) + '-' + ToStdString(peer.m_SerialNumber);
}

}  // namespace

ZNodePeer::ZNodePeer(const ZString& name) : ZNode(name) {
    m_logName = ClassName();
}

ZNodePeer::~ZNodePeer() {
    OnShutdown();
}

bool ZNodePeer::OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) {
    if (const auto core = cast_shared<ZCoreConfigParams>(message)) {
        m_answerTimeout = kAnswerShare * core->m_RequestTimeoutSeconds;
    }
    return ReadRecord<ZNodePeerCfg>(config, [this](const ZNodePeerCfg& record) {
        m_link = MakeLink();
        if (!m_link) {
            throw std::runtime_error(std::string("there is no link class ") + kLinkClass);
        }
        TakeSettings(record);
        LoadKeysAndPins(record);
    });
}

bool ZNodePeerCfg::IsAddress(std::string_view text) {
    const auto link = MakeLink();
    return link && link->IsAddress(std::string(text));
}

bool ZNodePeerCfg::IsExport(std::string_view text) {
    return text.size() > 2 && std::string_view("1236").find(text[0]) != std::string_view::npos && text[1] == ':' &&
           text.find(' ') == std::string_view::npos;
}

void ZNodePeer::TakeSettings(const ZNodePeerCfg& record) {
    m_settings.listenAddress = ToStdString(record.m_Listen);
    m_settings.exports = {record.m_Exports.begin(), record.m_Exports.end()};
    m_settings.heartbeat = std::chrono::milliseconds(record.m_HeartbeatMilliseconds);
}

void ZNodePeer::LoadKeysAndPins(const ZNodePeerCfg& record) {
    m_pinsFile = ToStdString(record.m_PinsFile);
    if (const auto loaded = m_link->LoadKeys(record.m_KeyFile); !loaded) {
        throw std::runtime_error("\"keyFile\": " + loaded.error().text);
    }
    const auto pins = LoadPins(m_pinsFile, *m_link);
    if (!pins) {
        throw std::runtime_error("\"pinsFile\": " + pins.error().text);
    }
    m_peers.SetPins(*pins);
}

bool ZNodePeer::InitMessageMap() {
    const auto subscribe = [this](const char* keyword, auto handler) {
        return Subscribe(GetEndpoint(ZEndpointType::GraphService, keyword, 0),
                         [this, handler](std::shared_ptr<ZMessage>& message) { return (this->*handler)(message); });
    };
    return subscribe("forward", &ZNodePeer::OnForward) && subscribe("peers", &ZNodePeer::OnPeers) &&
           subscribe("pair", &ZNodePeer::OnPair);
}

template <typename Answer>
std::shared_ptr<Answer> ZNodePeer::Ask(ZEndpointType type, const char* keyword) {
    std::shared_ptr<ZMessage> answer;
    Publish(GetEndpoint(type, keyword, 0), Z_MAKE(ZGenericRequestMsg), &answer);
    auto wanted = cast_shared<Answer>(answer);
    if (!wanted) {
        Z_LOG(3, "\"%s\" gave no answer: other devices are told less about this one", keyword);
    }
    return wanted;
}

std::shared_ptr<ZPeerMsg> ZNodePeer::Introduction() {
    auto self = Z_MAKE(ZPeerMsg);
    self->m_PublicKey = ToZString(m_link->PublicKey());
    if (const auto properties = Ask<ZDevicePropertiesMsg>(ZEndpointType::GraphService, "deviceProps")) {
        self->m_DeviceType = properties->m_DeviceType;
        self->m_DeviceModel = properties->m_DeviceModel;
        self->m_SerialNumber = properties->m_SerialNumber;
        self->m_Board = properties->m_Board;
    }
    if (const auto version = Ask<ZVersionInfoMsg>(ZEndpointType::ClientRequest, "getinstalledversioninfo")) {
        self->m_Version = version->m_Version;
    }
    return self;
}

bool ZNodePeer::OnGraphCreated() {
    m_self = Introduction();
    m_settings.introduction = m_self;
    if (const auto started = m_link->Start(m_settings, Comm(), *this); !started) {
        Z_LOG(4, "The link could not be opened: %s", started.error().text);
        return false;
    }
    m_link->SetPins(m_peers.Pins());
    Z_LOG(2, "The link is open; this device's key is %s", m_link->PublicKey());
    return true;
}

void ZNodePeer::OnShutdown() {
    if (m_link) {
        m_link->Close();
    }
}

bool ZNodePeer::OnForward(std::shared_ptr<ZMessage>& message) {
    const auto order = cast_shared<ZForwardMsg>(message);
    if (!order || !order->m_pMessage) {
        Z_LOG(3, "A %s can't be forwarded", message->ClassName());
        return false;
    }
    const ZResponseSource source(*order->m_pMessage);
    const auto respond = [source](const std::shared_ptr<ZMessage>& answer) {
        if (const auto comm = source.Comm()) {
            comm->Respond(source, answer);
        }
    };
    const std::string key = m_peers.Find(order->m_DeviceModel, order->m_SerialNumber);
    if (key.empty()) {
        const auto refusal = Z_MAKE(ZGenericResponseMsg);
        refusal->m_bSuccess = false;
        refusal->m_ErrorCode = ErrorCodes::ERRCODE_DEVICE_NOT_CONNECTED;
        refusal->m_ErrorText = ToZString("Device " + std::string(magic_enum::enum_name(order->m_DeviceModel)) + '-' +
                                         ToStdString(order->m_SerialNumber) + " is not connected");
        Z_LOG(3, "%s: a %s can't be forwarded", refusal->m_ErrorText, order->m_pMessage->ClassName());
        respond(refusal);
        return true;
    }
    const ZCommEndpoint endpoint({}, ZEndpointType::DeviceRequest, order->m_Keyword);
    m_link->Send(key, endpoint, order->m_pMessage, m_answerTimeout,
                 [respond](ZPublishOutcome, const std::shared_ptr<ZMessage>& answer) { respond(answer); });
    return true;
}

std::shared_ptr<ZPeersMsg> ZNodePeer::Peers() const {
    auto answer = Z_MAKE(ZPeersMsg);
    answer->m_PublicKey = ToZString(m_link->PublicKey());
    answer->m_Peers = m_peers.All();
    return answer;
}

bool ZNodePeer::OnPeers(const std::shared_ptr<ZMessage>& request) {
    return PublishResponse(request, Peers());
}

bool ZNodePeer::OnPair(const std::shared_ptr<ZMessage>& request) {
    const auto order = cast_shared<ZPairMsg>(request);
    const std::string problem = order ? Pair(*order) : std::string("The request is a ") + request->ClassName();
    const auto answer = Peers();
    if (!problem.empty()) {
        Z_LOG(3, "A device was not paired: %s", problem);
        answer->m_bSuccess = false;
        answer->m_ErrorCode = ErrorCodes::ERRCODE_INVALID_REQUEST;
        answer->m_ErrorText = ToZString(problem);
    }
    return PublishResponse(request, answer);
}

std::string ZNodePeer::Pair(const ZPairMsg& order) {
    ZLinkPin pin{ToStdString(order.m_Name), ToStdString(order.m_PublicKey), ToStdString(order.m_Address), {}};
    if (pin.name.empty()) {
        pin.name = pin.publicKey.substr(0, 8);
    }
    if (const std::string problem = ProblemWith(pin, *m_link);
        !problem.empty() || pin.publicKey == m_link->PublicKey()) {
        return problem.empty() ? "This is the device's own key" : problem;
    }
    std::vector<ZLinkPin> pins = m_peers.Pins();
    const auto known = std::ranges::find(pins, pin.publicKey, &ZLinkPin::publicKey);
    if (order.m_bRemove && known == pins.end()) {
        return pin.publicKey + " is not pinned";
    }
    if (order.m_bRemove) {
        pins.erase(known);
    } else if (known != pins.end()) {
        pin.serialNumber = known->serialNumber;
        *known = pin;
    } else {
        pins.push_back(pin);
    }
    if (const auto saved = SavePins(m_pinsFile, pins); !saved) {
        return saved.error().text;
    }
    m_peers.SetPins(pins);
    m_link->SetPins(pins);
    Z_LOG(2, "The key %s of %s is %s", pin.publicKey.c_str(), pin.name.c_str(),
          order.m_bRemove ? "no longer pinned" : "pinned");
    return {};
}

ZResult<void> ZNodePeer::OnPeerIntroduced(const std::string& key, const std::shared_ptr<ZMessage>& introduction) {
    const auto told = cast_shared<ZPeerMsg>(introduction);
    const auto isNews = m_peers.Introduced(key, told ? *told : *Z_MAKE(ZPeerMsg));
    if (!isNews) {
        return isNews.error();
    }
    if (*isNews) {
        // On the node's own thread, which alone writes the file. Without it the next introduction would settle it.
        ZMailbox::Mail save([this] {
            if (const auto saved = SavePins(m_pinsFile, m_peers.Pins()); !saved) {
                Z_LOG(4, "A device's serial number was not kept: %s", saved.error().text);
            }
        });
        static_cast<void>(Mailbox()->TryPost(save));
    }
    return {};
}

void ZNodePeer::OnPeerArrived(const std::string& key) {
    const auto peer = m_peers.Arrived(key);
    if (const auto more = m_news.Admit("come " + key)) {
        Z_LOG(2, "Device %s (%s, version %s) is connected%s", NameOf(*peer), peer->m_DeviceType, peer->m_Version,
              *more);
    }
    Announce(peer);
    if (m_self->m_DeviceType == DEVICE_PALM && peer->m_DeviceType == DEVICE_CART) {
        AskWhetherItFits(key);
    }
}

void ZNodePeer::OnPeerGone(const std::string& key) {
    const auto peer = m_peers.Gone(key);
    if (const auto more = m_news.Admit("go " + key)) {
        Z_LOG(3, "Device %s is gone%s", peer->m_SerialNumber.empty() ? key : NameOf(*peer), *more);
    }
    Announce(peer);
}

void ZNodePeer::OnPeerRefused(const std::string& key) {
    m_peers.Refused(key);
}

void ZNodePeer::AskWhetherItFits(const std::string& key) {
    const auto question = Z_MAKE(ZDeviceCompatibilityMsg);
    question->m_Version = m_self->m_Version;
    question->m_Model = m_self->m_DeviceModel;
    question->m_Board = m_self->m_Board;
    m_link->Send(key, ZCommEndpoint({}, ZEndpointType::GraphService, "checkCompatibility"), question, m_answerTimeout,
                 [this, key](ZPublishOutcome, const std::shared_ptr<ZMessage>& answer) { TakeVerdict(key, answer); });
}

void ZNodePeer::TakeVerdict(const std::string& key, const std::shared_ptr<ZMessage>& answer) {
    const auto verdict = cast_shared<ZDeviceCompatibilityMsg>(answer);
    const auto more = m_news.Admit("verdict " + key);
    if (!verdict) {
        const auto refusal = cast_shared<ZGenericResponseMsg>(answer);
        if (more) {
            Z_LOG(3, "The host device does not say whether this software fits: %s%s",
                  refusal ? refusal->m_ErrorText.c_str() : answer->ClassName(), *more);
        }
        return;
    }
    if (more) {
        Z_LOG(2, "The host device says: version %s is %s, target version %s, update %s%s", m_self->m_Version.c_str(),
              verdict->m_bCompatible ? "compatible" : "not compatible", verdict->m_TargetVersion.c_str(),
              verdict->m_bRequiresUpdate ? "required" : "not required", *more);
    }
    Announce(m_peers.Judged(key, *verdict));
}

void ZNodePeer::Announce(const std::shared_ptr<ZPeerMsg>& peer) {
    Publish(GetEndpoint(ZEndpointType::GraphService, "peerupdate", 0), peer, nullptr, false, false);
}
