#include "ZShared/ZWakeUp.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

ZWakeUp::ZWakeUp() : m_event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!m_event) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void ZWakeUp::Set() noexcept {
    // Fails only when the counter is at its limit, and then it is set already.
    static_cast<void>(::eventfd_write(m_event.Get(), 1));
}

void ZWakeUp::Clear() noexcept {
    eventfd_t count = 0;
    static_cast<void>(::eventfd_read(m_event.Get(), &count));
}

bool ZWakeUp::IsSet() const noexcept {
    pollfd entry{m_event.Get(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}
