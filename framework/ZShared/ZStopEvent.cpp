#include "ZShared/ZStopEvent.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace {
thread_local const ZStopEvent* t_event = nullptr;
}

ZStopEvent::ZStopEvent() : m_event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_event) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void ZStopEvent::Set() noexcept {
    const std::uint64_t one = 1;
    // Fails only when the counter is at its limit, and then the event is set already.
    [[maybe_unused]] const ssize_t written = ::write(m_event.Get(), &one, sizeof one);
}

bool ZStopEvent::IsSet() const noexcept {
    pollfd entry{m_event.Get(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
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
