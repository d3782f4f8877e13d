#pragma once

#include <map>
#include <set>

#include "JobStore.h"
#include "OrderLog.h"

namespace journal {

/// Every job: those that have ended on the disk, the open ones in memory too, with how far they are; and every order
/// that people gave. While the disk takes nothing, the newest stay in memory until it does. Used from one thread.
class Journal {
public:
    Journal(std::filesystem::path file, const Bounds& bounds) : m_file(std::move(file)), m_bounds(bounds) {}

    /// Opens the file and settles what an earlier life of the host left open. An error only for a file that must not
    /// be touched: a newer program has written it.
    ZResult<void> Begin();
    /// Keeps what a job has become. When it returns, a change of state is on the disk, if that takes anything.
    void Take(const std::shared_ptr<ZOperationMsg>& change);
    /// Keeps an order; likewise on the disk when it returns.
    void Take(const std::shared_ptr<ZOrderMsg>& order);
    /// The answer to a request; shares its messages with the journal.
    std::shared_ptr<ZOperationsMsg> Answer(const ZOperationsRequestMsg& request);
    std::shared_ptr<ZOrdersMsg> Answer(const ZOrdersRequestMsg& request);

    /// Whether something is left to be done later: DoRest tries it.
    bool HasRest() const { return m_failing || (m_store && m_store->IsOverfull()); }
    bool IsFailing() const { return m_failing; }
    void DoRest();

private:
    ZResult<void> OpenStore();
    ZResult<void> TakeOver();
    void Write();
    ZResult<void> TryToWrite();
    void OnFailure(const ZError& error);
    void StayInMemory(const ZError& error);
    void BeginAnew();
    void OpenAgain();
    void Forget(std::int64_t number);
    void BoundMemory();
    std::vector<Job> Choose(const JobQuery& query, std::size_t limit);
    std::vector<Job> FindById(const JobQuery& query);
    std::vector<Job> FromDisk(const std::function<ZResult<std::vector<Job>>(JobStore&)>& read);

    const std::filesystem::path m_file;
    const Bounds m_bounds;
    std::unique_ptr<JobStore> m_store;  // null: it could not be opened
    bool m_failing = false;             // the disk takes nothing, which was told
    std::string m_problem;              // why
    bool m_tookOver = false;            // the jobs of earlier lives are known
    std::int64_t m_lastNumber = 0;
    std::map<std::int64_t, std::shared_ptr<ZOperationMsg>> m_jobs;  // the open ones, and those not written yet
    std::map<ZString, std::int64_t> m_numbers;                      // of these, by id
    std::set<std::int64_t> m_unwritten;
    OrderLog m_orders;
};

}  // namespace journal
