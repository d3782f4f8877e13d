#pragma once

#include "BareQueue.h"
#include "Nodes.h"

/// A device's name and keys, in files of its own below a folder.
struct LinkIdentity {
    /// Makes the key pair. Throws std::runtime_error when it can't be written.
    LinkIdentity(const Scratch& scratch, const std::string& serial);

    std::string serialNumber;
    std::filesystem::path keyFile;
    std::filesystem::path pinsFile;
    std::string publicKey;
};

/// One of two devices in this process: a graph with its end of the link, and a node that stands for all others. It
/// hands file messages on to the other device and answers those that come from there.
class LinkDevice {
public:
    enum class Role { Listens, Calls };

    /// `address`: where one of the two listens and the other calls it. Throws std::runtime_error when the graph can't
    /// be set up.
    LinkDevice(const LinkIdentity& self, const LinkIdentity& other, const std::string& address, Role role);
    LinkDevice(const LinkDevice&) = delete;
    LinkDevice& operator=(const LinkDevice&) = delete;

    /// Throws std::runtime_error when the other device does not come.
    void WaitForOther();
    /// Asks the other device, as a transfer does; null when there is no answer.
    std::shared_ptr<ZMessage> Ask(const std::shared_ptr<ZMessage>& request);

private:
    void Subscribe(ZEndpointType type, const char* keyword, ZNode::MessageFunction handler);
    bool TellIdentity(const std::shared_ptr<ZMessage>& request);
    bool HandOn(const std::shared_ptr<ZMessage>& message);
    bool Answer(const std::shared_ptr<ZMessage>& request);

    const ZString m_serialNumber;
    const ZString m_other;
    BareQueue<bool> m_news;  // of the other device: whether it is connected
    ZGraph m_graph;
    std::shared_ptr<ZNode> m_rest;
};
