#pragma once

#include "NodeBase/ZNode.h"

/// Tells whether the nodes' message threads still do their work. One thread uses an object.
class Heartbeat {
public:
    using Clock = ZMailbox::Clock;

    /// A node may be silent for `patience`: as long as its longest handler may take.
    explicit Heartbeat(Clock::duration patience) : m_patience(patience) {}

    /// Asks every node for a sign of life, without waiting for it, and returns the name of one that has given none for
    /// too long since it was first among those that were asked; empty when all is well.
    ZString SilentNode(const std::vector<std::shared_ptr<ZNode>>& nodes);

private:
    struct Pulse {
        std::shared_ptr<ZNode> node;
        std::shared_ptr<std::atomic<Clock::rep>> last;  // shared with the sign that still waits in the node's queue
    };
    const Clock::duration m_patience;
    std::vector<Pulse> m_pulses;
};
