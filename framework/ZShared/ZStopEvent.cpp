#include "ZShared/ZStopEvent.h"

namespace {
thread_local const ZStopEvent* t_event = nullptr;
}

const ZStopEvent* ZStopEvent::OfThisThread() noexcept {
    return t_event;
}

ZStopScope::ZStopScope(const ZStopEvent& event) noexcept : m_previous(t_event) {
    t_event = &event;
}
ZStopScope::~ZStopScope() {
    t_event = m_previous;
}
