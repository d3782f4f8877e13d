#include "NodeBase/ZTimer.h"

#include <algorithm>
#include <functional>
#include <system_error>

#include "ZShared/ZLog.h"

namespace {
constexpr ZLogger Log() {
    return ZLogger("ZTimer");
}
}  // namespace

ZTimer::ZTimer(std::shared_ptr<ZMailbox> mailbox, Callback callback, void* context)
    : m_mailbox(std::move(mailbox)),
      m_callback(std::make_shared<const Callback>(std::move(callback))),
      m_context(context) {}

ZTimer::~ZTimer() {
    Stop();
}

bool ZTimer::Start(std::chrono::milliseconds interval, bool repeat) {
    const std::lock_guard control(m_controlMutex);
    EndThread();
    m_stopped.Exchange(false);
    try {
        const auto period = std::max(interval, std::chrono::milliseconds(1));
        m_thread = std::thread([this, period, repeat] { Run(period, repeat); });
        return true;
    } catch (const std::system_error& failure) {
        Z_LOG(4, "No timer thread: %s", failure.what());
        return false;
    }
}

void ZTimer::Stop() {
    const std::lock_guard control(m_controlMutex);
    EndThread();
}

void ZTimer::EndThread() {
    m_stopped.Exchange(true);
    m_changed.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void ZTimer::Run(std::chrono::milliseconds interval, bool repeat) {
    auto due = ZMailbox::Clock::now() + interval;
    auto stopped = m_stopped.Lock();
    do {
        if (stopped.WaitUntil(m_changed, due, std::identity())) {
            return;
        }
        // A full queue skips this call: the node is busy, and the next one comes.
        m_mailbox->Post([callback = m_callback, context = m_context] { (*callback)(context); }, {});
        due += interval;
    } while (repeat);
}
