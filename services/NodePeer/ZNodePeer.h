#pragma once

#include "NodeBase/ZNode.h"
#include "NodeComm/ZNodeLink.h"
#include "PeerTable.h"
#include "ZShared/ZLogLimit.h"

class ZNodePeerCfg : public ZConfig {
    Z_MESSAGE(ZNodePeerCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_KeyFile;
    ZString m_PinsFile;
    ZString m_Listen;
    ZVector<ZString> m_Exports;
    std::uint32_t m_HeartbeatMilliseconds = 1000;

    static bool IsAddress(std::string_view text);
    static bool IsExport(std::string_view text);

    Z_FIELDS(Z_FIELD(m_KeyFile).Path().Means("This device's key pair. Made when there is none.",
                                             "\"/etc/arbor/link-key.json\""),
             Z_FIELD(m_PinsFile)
                 .Path()
                 .Means("The keys of the devices that are let in. Pairing writes it.", "\"/etc/arbor/link-pins.json\""),
             Z_FIELD(m_Listen)
                 .Checked(&IsAddress, "an address such as tcp://*:5700")
                 .OrEmpty()
                 .Means("Where others may call. Empty: this device only calls.", "\"tcp://*:5700\""),
             Z_FIELD(m_Exports)
                 .Checked(&IsExport, "a type and keyword, as \"2:upload\"", "^[1236]:[^ ]+$")
                 .Means("What other devices may ask for here, as type and keyword.", "[\"2:upload\"]"),
             Z_FIELD(m_HeartbeatMilliseconds)
                 .In(100, 60'000)
                 .Means("How often a silent device is probed. It is given up after twice that."))
};

/// This device's link to others: knows them, hands messages to them ("forward"), lets them in by their keys ("peers",
/// "pair") and says when one comes or goes ("peerupdate"). On an accessory it asks every host device that comes whether
/// the software fits ("checkCompatibility").
class ZNodePeer : public ZNode, private ZLinkObserver {
    Z_CLASS(ZNodePeer, ZNode)
public:
    explicit ZNodePeer(const ZString& name);
    ~ZNodePeer() override;

    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    /// Learns who this device is, and opens the link.
    bool OnGraphCreated() override;
    void OnShutdown() override;

private:
    void TakeSettings(const ZNodePeerCfg& record);
    /// Reads the files that the record names.
    void LoadKeysAndPins(const ZNodePeerCfg& record);
    std::shared_ptr<ZPeerMsg> Introduction();
    template <typename Answer>
    std::shared_ptr<Answer> Ask(ZEndpointType type, const char* keyword);

    bool OnForward(std::shared_ptr<ZMessage>& message) override;
    bool OnPeers(const std::shared_ptr<ZMessage>& request);
    bool OnPair(const std::shared_ptr<ZMessage>& request);
    /// Empty when it was done, or what is in the way.
    std::string Pair(const ZPairMsg& order);
    std::shared_ptr<ZPeersMsg> Peers() const;

    // On the link's thread.
    ZResult<void> OnPeerIntroduced(const std::string& key, const std::shared_ptr<ZMessage>& introduction) override;
    void OnPeerArrived(const std::string& key) override;
    void OnPeerGone(const std::string& key) override;
    void OnPeerRefused(const std::string& key) override;
    void AskWhetherItFits(const std::string& key);
    void TakeVerdict(const std::string& key, const std::shared_ptr<ZMessage>& answer);
    void Announce(const std::shared_ptr<ZPeerMsg>& peer);

    ZLinkSettings m_settings;
    std::string m_pinsFile;
    std::chrono::milliseconds m_answerTimeout{30'000};
    std::shared_ptr<ZPeerMsg> m_self;  // set before the link is opened, then only read
    PeerTable m_peers;
    ZLogLimit m_news{64, 20};  // a device may come and go as often as it likes
    std::shared_ptr<ZNodeLink> m_link;
};
