#pragma once

#include <condition_variable>
#include <list>
#include <thread>

#include "NodeBase/ZNodeAction.h"
#include "ZShared/ZGuarded.h"
#include "ZShared/ZStopEvent.h"

/// Owns a node's running actions, one thread each. Thread-safe.
class ZActionRunner {
public:
    ZActionRunner() = default;
    ~ZActionRunner();
    ZActionRunner(const ZActionRunner&) = delete;
    ZActionRunner& operator=(const ZActionRunner&) = delete;

    /// Runs the action on a new thread. False when no thread can be had, or after StopAll.
    bool Start(const std::shared_ptr<ZNodeAction>& action);
    /// Clears the run flag of the action started last; false when that one has ended, or none was started.
    bool StopNewest();
    /// Clears every run flag, ends the commands that actions wait for, and refuses further starts.
    void StopAll();
    /// Waits for every action to end.
    void Join();

    const ZStopEvent& StopEvent() const { return m_stop; }

private:
    struct Running {
        std::shared_ptr<ZNodeAction> action;
        std::thread thread;
        bool ended = false;
    };
    struct Actions {
        std::list<Running> running;  // oldest first
        bool stopped = false;

        std::list<Running> TakeEnded();
    };
    void Run(Running& running);

    ZStopEvent m_stop;
    std::condition_variable m_ended;  // an action has ended
    ZGuarded<Actions> m_actions;
};
