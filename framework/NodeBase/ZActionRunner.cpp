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

std::list<ZActionRunner::Running> ZActionRunner::Actions::TakeEnded() {
    std::list<Running> ended;
    for (auto entry = running.begin(); entry != running.end();) {
        const auto next = std::next(entry);
        if (entry->ended) {
            ended.splice(ended.end(), running, entry);
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
        const auto actions = m_actions.Lock();
        ended = actions->TakeEnded();
        if (!actions->stopped) {
            Running& running = actions->running.emplace_back();
            running.action = action;
            try {
                running.thread = std::thread([this, &running] { Run(running); });
                started = true;
            } catch (const std::system_error& error) {
                failure = error.what();
                actions->running.pop_back();
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
    const auto actions = m_actions.Lock();
    done = std::move(running.action);
    running.ended = true;
    m_ended.notify_all();
}

bool ZActionRunner::StopNewest() {
    const auto actions = m_actions.Lock();
    // The last entry is the one started last: ended ones stay until the next start. An older action that still runs is
    // not the one that is meant.
    if (actions->running.empty() || actions->running.back().ended) {
        return false;
    }
    actions->running.back().action->Stop();
    return true;
}

void ZActionRunner::StopAll() {
    const auto actions = m_actions.Lock();
    actions->stopped = true;
    for (Running& running : actions->running) {
        if (!running.ended) {
            running.action->Stop();
        }
    }
    m_stop.Set();
}

void ZActionRunner::Join() {
    std::list<Running> ended;
    {
        auto actions = m_actions.Lock();
        // Those that run stay in the list: StopAll must reach them while somebody waits here.
        actions.Wait(m_ended, [](const Actions& all) { return std::ranges::all_of(all.running, &Running::ended); });
        ended = actions->TakeEnded();
    }
    for (Running& running : ended) {
        running.thread.join();
    }
}
