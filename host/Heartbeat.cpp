#include "Heartbeat.h"

Heartbeat::Heartbeat(const std::vector<std::shared_ptr<ZNode>>& nodes, Clock::duration patience)
    : m_patience(patience) {
    const auto now = Clock::now().time_since_epoch().count();
    for (const auto& node : nodes) {
        m_pulses.push_back({node, std::make_shared<std::atomic<Clock::rep>>(now)});
    }
}

ZString Heartbeat::SilentNode() {
    ZString silent;
    const auto now = Clock::now();
    for (const Pulse& pulse : m_pulses) {
        // A queue without room takes no sign; what counts is how long ago the last one was given.
        pulse.node->CallOnMessageThread([last = pulse.last] { *last = Clock::now().time_since_epoch().count(); }, now);
        if (now.time_since_epoch() - Clock::duration(*pulse.last) > m_patience) {
            silent = pulse.node->Name();
        }
    }
    return silent;
}
