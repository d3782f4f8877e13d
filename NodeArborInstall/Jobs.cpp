#include <algorithm>

#include "ZNodeArborInstall.h"

// Which job an action does, and how many actions of one kind run at once.

namespace {

// Further ones wait: a drive that hangs keeps its action, and there may be many drives.
constexpr std::size_t kActionsAtOnce = 4;
// Far more than drives and files come and go while four actions are busy.
constexpr std::size_t kMostWaiting = 1024;

}  // namespace

void ZNodeArborInstall::BeginJob(const std::shared_ptr<ZMessage>& message, const ZOperationSubject& subject) {
    const auto operation = BeginOperation(subject, message.get());
    m_jobs.Lock()->emplace(message.get(), operation);
}

bool ZNodeArborInstall::StartJob(const char* action, const std::shared_ptr<ZMessage>& message,
                                 const ZOperationSubject& subject) {
    BeginJob(message, subject);
    const bool started = RunAction(action, message);
    if (!started) {
        DropJobs(*message);
    }
    return started;
}

void ZNodeArborInstall::DropJobs(const ZMessage& message) {
    const auto jobs = m_jobs.Lock();
    const auto [first, end] = jobs->equal_range(&message);
    for (auto job = first; job != end; ++job) {
        job->second->Fail("it could not be started");
    }
    jobs->erase(first, end);
}

std::shared_ptr<ZOperation> ZNodeArborInstall::TakeJob(const ZMessage* message, const ZOperationSubject& subject) {
    std::shared_ptr<ZOperation> operation;
    {
        const auto jobs = m_jobs.Lock();
        const auto [first, end] = jobs->equal_range(message);
        const auto found = std::find_if(first, end, [&](const auto& entry) {
            const auto job = entry.second->Get();
            return job->m_Kind == subject.kind && job->m_File == subject.file;
        });
        if (found != end) {
            operation = found->second;
            jobs->erase(found);
        }
    }
    if (!operation) {
        operation = BeginOperation(subject, message);
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
                DropJobs(*message);
                return;
            }
            backlog.waiting.push_back(message);
            return;
        }
        ++backlog.running;
    }
    if (!RunAction(action, message)) {
        DropJobs(*message);
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
