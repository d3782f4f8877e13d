#include "ZNodeArborInstall.h"

// Which job an action does, and how many actions of one kind run at once.

namespace {

// Further ones wait: a drive that hangs keeps its action, and there may be many drives.
constexpr std::size_t kActionsAtOnce = 4;
// Far more than drives and files come and go while four actions are busy.
constexpr std::size_t kMostWaiting = 1024;

}  // namespace

bool ZNodeArborInstall::StartJob(const char* action, const std::shared_ptr<ZMessage>& message,
                                 const ZOperationSubject& subject) {
    const auto operation = BeginOperation(subject, message.get());
    m_jobs.Lock()->emplace(message, operation);
    const bool started = RunAction(action, message);
    if (!started) {
        m_jobs.Lock()->erase(message);
        operation->Fail("it could not be started");
    }
    return started;
}

std::shared_ptr<ZOperation> ZNodeArborInstall::TakeJob(const std::shared_ptr<ZMessage>& message,
                                                       const ZOperationSubject& subject) {
    std::shared_ptr<ZOperation> operation;
    if (const auto job = m_jobs.Lock()->extract(message)) {
        operation = job.mapped();
    }
    if (!operation) {
        operation = BeginOperation(subject, message.get());
    }
    operation->Start();
    return operation;
}

void ZNodeArborInstall::RunBounded(const char* action, const std::shared_ptr<ZMessage>& message) {
    {
        const auto backlogs = m_backlogs.Lock();
        Backlog& backlog = (*backlogs)[action];
        if (backlog.running >= kActionsAtOnce) {
            if (backlog.waiting.size() >= kMostWaiting) {
                Z_LOG(4, "More than %d wait for a %s: one is left out", static_cast<int>(kMostWaiting), action);
                return;
            }
            backlog.waiting.push_back(message);
            return;
        }
        ++backlog.running;
    }
    if (!RunAction(action, message)) {
        --(*m_backlogs.Lock())[action].running;
    }
}

std::shared_ptr<ZMessage> ZNodeArborInstall::NextWaiting(const char* action) {
    const auto backlogs = m_backlogs.Lock();
    Backlog& backlog = (*backlogs)[action];
    if (backlog.waiting.empty() || InShutdown()) {
        backlog.running -= backlog.running > 0 ? 1 : 0;
        return nullptr;
    }
    auto next = std::move(backlog.waiting.front());
    backlog.waiting.pop_front();
    return next;
}
