#include "Journal.h"

#include <algorithm>

#include "MessageRows.h"
#include "NodeBase/ZOperation.h"
#include "ZShared/ZLog.h"

namespace journal {

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZNodeJournal");
}

using Rows = MessageRows<ZOperationMsg>;

constexpr std::size_t kMostInMemory = 1000;  // that have ended and could not be written
constexpr std::size_t kLongestId = 64;
constexpr std::size_t kLongestText = 4096;  // of a job

bool IsSound(const ZOperationMsg& message) {
    return !message.m_Id.empty() && message.m_Id.size() <= kLongestId && magic_enum::enum_contains(message.m_State);
}

/// Whether the change is more than how far the job is.
bool MustBeWritten(const ZOperationMsg& before, const ZOperationMsg& after) {
    return before.m_State != after.m_State || before.m_ProcessId != after.m_ProcessId ||
           before.m_ProcessStart != after.m_ProcessStart;
}

bool IsLater(const Job& left, const Job& right) {
    return left.number > right.number;
}

template <typename Answer = ZOperationsMsg>
std::shared_ptr<Answer> Refusal(const std::string& text, ZFrameworkErrorCodes::ZErrorCode code) {
    auto answer = ZMakeShared<Answer>();
    answer->m_bSuccess = false;
    answer->m_ErrorText = ToZString(text);
    answer->m_ErrorCode = code;
    return answer;
}

}  // namespace

// --- The disk ---

ZResult<void> Journal::Begin() {
    auto opened = OpenStore();
    if (!opened && opened.error().code == ZFrameworkErrorCodes::ERRCODE_NOT_SUPPORTED) {
        return opened;
    }
    if (!opened) {
        OnFailure(opened.error());
    }
    return {};
}

ZResult<void> Journal::OpenStore() {
    m_store.reset();  // the file is one connection's alone
    auto store = JobStore::Open(m_file, m_bounds);
    if (!store) {
        return store.error();
    }
    m_store = std::move(store.value());
    m_orders.OnOpened(m_store->Orders());
    return m_tookOver ? ZResult<void>() : TakeOver();
}

ZResult<void> Journal::TakeOver() {
    if (auto lost = m_store->LoseOpenJobs(); !lost) {
        return lost;
    }
    auto open = m_store->OpenJobs();
    if (!open) {
        return open.error();
    }
    // What was begun before the file could be opened comes behind what is in it.
    const auto begun = std::exchange(m_jobs, {});
    m_numbers.clear();
    m_unwritten.clear();
    m_lastNumber = m_store->LastNumber();
    for (const Job& job : *open) {
        m_jobs[job.number] = job.message;
        m_numbers[job.message->m_Id] = job.number;
    }
    for (const auto& [number, message] : begun) {
        if (const auto left = m_numbers.find(message->m_Id); left != m_numbers.end()) {
            m_jobs[left->second] = message;
            m_unwritten.insert(left->second);
            continue;
        }
        m_jobs[++m_lastNumber] = message;
        m_numbers[message->m_Id] = m_lastNumber;
        m_unwritten.insert(m_lastNumber);
    }
    m_tookOver = true;
    return {};
}

void Journal::OnFailure(const ZError& error) {
    if (m_store && m_store->IsDamaged()) {
        BeginAnew();
    } else {
        StayInMemory(error);
    }
}

void Journal::StayInMemory(const ZError& error) {
    m_problem = error.text;
    if (!std::exchange(m_failing, true)) {
        Z_LOG(4, "%s; until it can be written the newest %zu jobs are kept in memory", error.text, kMostInMemory);
    }
    BoundMemory();
}

void Journal::BeginAnew() {
    Z_LOG(4, "%s is damaged; it is kept as %s.damaged, and begun anew", m_file, m_file);
    m_store.reset();
    JobStore::MoveAside(m_file);
    OpenAgain();
}

void Journal::OpenAgain() {
    auto done = OpenStore();
    if (done) {
        // The file may be another one than before: it needs all that is known.
        for (const auto& [number, message] : m_jobs) {
            m_unwritten.insert(number);
        }
        m_lastNumber = std::max(m_lastNumber, m_store->LastNumber());
        done = TryToWrite();
    }
    if (!done) {
        StayInMemory(done.error());
    } else if (std::exchange(m_failing, false)) {
        Z_LOG(2, "%s is written again", m_file);
    }
}

ZResult<void> Journal::TryToWrite() {
    if (!m_store) {
        return ZError(m_file.string() + ": it is not open");
    }
    std::vector<Job> jobs;
    for (const std::int64_t number : m_unwritten) {
        jobs.push_back({number, m_jobs.at(number)});
    }
    const auto written =
        jobs.empty() && m_orders.HasUnwritten() ? ZResult<std::vector<Job>>(std::vector<Job>()) : m_store->Write(jobs);
    if (!written) {
        return written.error();
    }
    for (const Job& job : *written) {
        Z_LOG(3, "Job %s has ended before; that it is %s now is ignored", job.message->m_Id, job.message->m_State);
        Forget(job.number);
    }
    for (const Job& job : jobs) {
        if (!job.message->IsOpen()) {
            Forget(job.number);
        }
    }
    m_unwritten.clear();
    return m_orders.HasUnwritten() ? m_orders.Write(m_store->Orders()) : ZResult<void>();
}

void Journal::Write() {
    if (m_failing) {
        BoundMemory();
    } else if (const auto written = TryToWrite(); !written) {
        OnFailure(written.error());
    }
}

void Journal::DoRest() {
    if (m_failing) {
        OpenAgain();
    } else if (const auto trimmed = m_store->Trim(); !trimmed) {
        OnFailure(trimmed.error());
    }
}

// --- The jobs ---

void Journal::Take(const std::shared_ptr<ZOperationMsg>& change) {
    if (!IsSound(*change)) {
        Z_LOG(3, "A job with the id \"%s\" and the state %s is not kept", change->m_Id.substr(0, kLongestId),
              change->m_State);
        return;
    }
    const auto known = m_numbers.find(change->m_Id);
    if (known == m_numbers.end()) {
        const std::int64_t number = ++m_lastNumber;
        m_jobs[number] = Rows::Bounded(change, kLongestText);
        m_numbers[change->m_Id] = number;
        m_unwritten.insert(number);
        Write();
        return;
    }
    std::shared_ptr<ZOperationMsg>& job = m_jobs.at(known->second);
    const bool goesBack = job->m_State == ZOperationState::Running && change->m_State == ZOperationState::Queued;
    if (!job->IsOpen() || goesBack) {
        Z_LOG(3, "Job %s is %s; that it is %s now is ignored", change->m_Id, job->m_State, change->m_State);
        return;
    }
    const bool changed = MustBeWritten(*job, *change);
    job = Rows::Bounded(change, kLongestText);
    if (changed) {
        m_unwritten.insert(known->second);
        Write();
    }
}

void Journal::Take(const std::shared_ptr<ZOrderMsg>& order) {
    m_orders.Take(order);
    Write();
}

void Journal::Forget(std::int64_t number) {
    if (const auto job = m_jobs.find(number); job != m_jobs.end()) {
        m_numbers.erase(job->second->m_Id);
        m_jobs.erase(job);
    }
}

void Journal::BoundMemory() {
    for (auto number = m_unwritten.begin(); m_unwritten.size() > kMostInMemory && number != m_unwritten.end();) {
        if (m_jobs.at(*number)->IsOpen()) {
            ++number;
            continue;
        }
        Forget(*number);
        number = m_unwritten.erase(number);
    }
}

// --- Answers ---

std::vector<Job> Journal::FromDisk(const std::function<ZResult<std::vector<Job>>(JobStore&)>& read) {
    if (!m_store) {
        return {};
    }
    auto jobs = read(*m_store);
    if (jobs) {
        return std::move(jobs.value());
    }
    OnFailure(jobs.error());
    return {};
}

std::vector<Job> Journal::Choose(const JobQuery& query, std::size_t limit) {
    std::vector<Job> jobs;
    for (auto job = m_jobs.lower_bound(query.before); job != m_jobs.begin() && jobs.size() < limit;) {
        --job;
        if (query.Fits(*job->second)) {
            jobs.push_back({job->first, job->second});
        }
    }
    if (!query.onlyOpen) {
        const auto isHere = [this](const ZString& id) { return m_numbers.contains(id); };
        std::ranges::move(FromDisk([&](JobStore& store) { return store.List(query, limit, isHere); }),
                          std::back_inserter(jobs));
        std::ranges::sort(jobs, IsLater);
        jobs.resize(std::min(jobs.size(), limit));
    }
    return jobs;
}

std::vector<Job> Journal::FindById(const JobQuery& query) {
    std::vector<Job> jobs;
    for (auto known = m_numbers.lower_bound(ToZString(query.id));
         known != m_numbers.end() && std::string_view(known->first).starts_with(query.id); ++known) {
        jobs.push_back({known->second, m_jobs.at(known->second)});
    }
    for (Job& job : FromDisk([&](JobStore& store) { return store.Find(query.id); })) {
        if (!m_numbers.contains(job.message->m_Id)) {
            jobs.push_back(std::move(job));
        }
    }
    const auto whole =
        std::ranges::find_if(jobs, [&](const Job& job) { return std::string_view(job.message->m_Id) == query.id; });
    return whole == jobs.end() ? jobs : std::vector<Job>{*whole};
}

std::shared_ptr<ZOperationsMsg> Journal::Answer(const ZOperationsRequestMsg& request) {
    const auto query = JobQuery::Of(request);
    if (!query) {
        return Refusal(query.error().text, query.error().code);
    }
    std::vector<Job> jobs;
    if (query->id.empty()) {
        jobs = Choose(*query, query->limit + 1);
    } else {
        jobs = FindById(*query);
        if (jobs.size() > 1) {
            return Refusal("Several jobs have ids that begin with \"" + query->id + '"',
                           ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST);
        }
        if (jobs.empty() || !query->Fits(*jobs.front().message)) {
            return Refusal("There is no job with the id \"" + query->id + '"', ZFrameworkErrorCodes::ERRCODE_NOT_FOUND);
        }
    }
    auto answer = Z_MAKE(ZOperationsMsg);
    if (jobs.size() > query->limit) {
        jobs.resize(query->limit);
        answer->m_Next = ToZString(std::to_string(jobs.back().number));
    }
    for (const Job& job : jobs) {
        auto& told = answer->m_Operations.emplace_back(Z_MAKE(ZOperationMsg));
        told->CloneDataMembers(*job.message);
        if (told->IsOpen()) {
            ZOperation::CountTime(*told);
        }
    }
    answer->m_Problem = ToZString(m_failing ? m_problem : std::string());
    return answer;
}

std::shared_ptr<ZOrdersMsg> Journal::Answer(const ZOrdersRequestMsg& request) {
    const auto query = OrderQuery::Of(request);
    if (!query) {
        return Refusal<ZOrdersMsg>(query.error().text, query.error().code);
    }
    auto orders = m_orders.Choose(*query, m_store ? &m_store->Orders() : nullptr);
    if (!orders) {
        OnFailure(orders.error());
        orders = m_orders.Choose(*query, nullptr);
    }
    return AnswerOf(std::move(orders.value()), query->limit);
}

}  // namespace journal
