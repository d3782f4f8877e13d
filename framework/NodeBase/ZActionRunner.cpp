#include "NodeBase/ZActionRunner.h"

#include <algorithm>
#include <system_error>

#include "ZShared/ZLog.h"

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZActionRunner");
}

void RunGuarded(ZNodeAction& action) {
    try {
        if (!action.ActionThread()) {
            Z_LOG(3, "%s: %s", action.ClassName(), "the action reports failure");
        }
    } catch (const std::exception& failure) {
        Z_LOG(4, "%s: %s", action.ClassName(), failure.what());
    } catch (...) {
        Z_LOG(4, "%s: %s", action.ClassName(), "an unknown exception left the action");
    }
}

}  // namespace

ZActionRunner::~ZActionRunner() {
    StopAll();
    Join();
}

std::list<ZActionRunner::Running> ZActionRunner::TakeEnded() {
    std::list<Running> ended;
    for (auto entry = m_running.begin(); entry != m_running.end();) {
        const auto next = std::next(entry);
        if (entry->ended) {
            ended.splice(ended.end(), m_running, entry);
        }
        entry = next;
    }
    return ended;
}

bool ZActionRunner::Start(const std::shared_ptr<ZNodeAction>& action) {
    std::list<Running> ended;  // joined below, outside the lock
    bool started = false;
    std::string failure;
    {
        const std::lock_guard lock(m_mutex);
        ended = TakeEnded();
        if (!m_stopped) {
            Running& running = m_running.emplace_back();
            running.action = action;
            try {
                running.thread = std::thread([this, &running] { Run(running); });
                started = true;
            } catch (const std::system_error& error) {
                failure = error.what();
                m_running.pop_back();
            }
        }
    }
    if (!failure.empty()) {
        Z_LOG(4, "%s: %s", action->ClassName(), failure);
    }
    for (Running& running : ended) {
        running.thread.join();
    }
    return started;
}

void ZActionRunner::Run(Running& running) {
    {
        const ZStopScope scope(m_stop);
        RunGuarded(*running.action);
    }
    std::shared_ptr<ZNodeAction> done;  // destroyed outside the lock
    const std::lock_guard lock(m_mutex);
    done = std::move(running.action);
    running.ended = true;
    m_ended.notify_all();
}

bool ZActionRunner::StopNewest() {
    const std::lock_guard lock(m_mutex);
    // The last entry is the one started last: ended ones stay until the next start. An older action that still runs is
    // not the one that is meant.
    if (m_running.empty() || m_running.back().ended) {
        return false;
    }
    m_running.back().action->Stop();
    return true;
}

void ZActionRunner::StopAll() {
    const std::lock_guard lock(m_mutex);
    m_stopped = true;
    for (Running& running : m_running) {
        if (!running.ended) {
            running.action->Stop();
        }
    }
    m_stop.Set();
}

void ZActionRunner::Join() {
    std::list<Running> ended;
    {
        std::unique_lock lock(m_mutex);
        // Those that run stay in the list: StopAll must reach them while somebody waits here.
        m_ended.wait(lock, [this] { return std::ranges::all_of(m_running, &Running::ended); });
        ended = TakeEnded();
    }
    for (Running& running : ended) {
        running.thread.join();
    }
}
