#include "Heartbeat.h"

#include <algorithm>

ZString Heartbeat::SilentNode(const std::vector<std::shared_ptr<ZNode>>& nodes) {
    ZString silent;
    const auto now = Clock::now();
    std::erase_if(m_pulses, [&](const Pulse& pulse) { return std::ranges::find(nodes, pulse.node) == nodes.end(); });
    for (const auto& node : nodes) {
        if (std::ranges::find(m_pulses, node, &Pulse::node) == m_pulses.end()) {
            m_pulses.push_back({node, std::make_shared<std::atomic<Clock::rep>>(now.time_since_epoch().count())});
        }
    }
    for (const Pulse& pulse : m_pulses) {
        // A queue without room takes no sign; what counts is how long ago the last one was given.
        pulse.node->CallOnMessageThread([last = pulse.last] { *last = Clock::now().time_since_epoch().count(); }, now);
        if (now.time_since_epoch() - Clock::duration(*pulse.last) > m_patience) {
            silent = pulse.node->Name();
        }
    }
    return silent;
}
