#include <algorithm>
#include <iterator>

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
    std::vector<std::shared_ptr<ZOperation>> dropped;
    {
        const auto jobs = m_jobs.Lock();
        const auto [first, end] = jobs->equal_range(&message);
        std::transform(first, end, std::back_inserter(dropped), [](const auto& entry) { return entry.second; });
        jobs->erase(first, end);
    }
    for (const auto& operation : dropped) {
        operation->Fail("it could not be done");
    }
}

std::shared_ptr<ZOperation> ZNodeArborInstall::TakeJob(const ZMessage* message, const ZOperationSubject& subject) {
    std::shared_ptr<ZOperation> operation;
    {
        const auto jobs = m_jobs.Lock();
        const auto [first, end] = jobs->equal_range(message);
        const auto found = std::find_if(first, end, [&](const auto& entry) {
            return entry.second->Kind() == subject.kind && entry.second->File() == subject.file;
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

bool ZNodeArborInstall::RunBounded(const char* action, const std::shared_ptr<ZMessage>& message) {
    enum class Turn { Now, Later, Never } turn = Turn::Now;
    {
        const auto backlogs = m_backlogs.Lock();
        Backlog& backlog = (*backlogs)[action];
        if (backlog.running < kActionsAtOnce) {
            ++backlog.running;
        } else if (backlog.waiting.size() < kMostWaiting) {
            backlog.waiting.push_back(message);
            turn = Turn::Later;
        } else {
            turn = Turn::Never;
        }
    }
    if (turn == Turn::Later) {
        return false;
    }
    if (turn == Turn::Never) {
        Z_LOG(4, "More than %d wait for a %s: one is left out", static_cast<int>(kMostWaiting), action);
        DropJobs(*message);
    } else if (!RunAction(action, message)) {
        DropJobs(*message);
        --(*m_backlogs.Lock())[action].running;
    }
    return turn == Turn::Now;
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
