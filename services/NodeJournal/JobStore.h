#pragma once

#include <functional>
#include <span>
#include <vector>

#include "JobQuery.h"
#include "OrderStore.h"

namespace journal {

/// A job with its place in the order of their beginnings.
struct Job {
    std::int64_t number = 0;
    std::shared_ptr<ZOperationMsg> message;
};

/// How much is kept of jobs that have ended, and of orders.
struct Bounds {
    std::int64_t rows = 0;
    std::int64_t days = 0;  ///< 0: however old
    std::int64_t orders = 10'000;
};

/// The jobs on the disk. Each function is a whole: done, or nothing of it, with the reason. Used from one thread.
class JobStore {
public:
    /// Opens the file, or makes it with its folders. A file that is damaged is moved aside and begun anew, which is
    /// logged. ERRCODE_NOT_SUPPORTED: a newer program has written it.
    static ZResult<std::unique_ptr<JobStore>> Open(const std::filesystem::path& file, const Bounds& bounds);
    /// Renames the file to "FILE.damaged", in the place of an earlier one.
    static void MoveAside(const std::filesystem::path& file);

    /// Ends what an earlier life of the host has left open and no process goes on with.
    ZResult<void> LoseOpenJobs();
    ZResult<std::vector<Job>> OpenJobs();
    /// Writes new jobs and changes of older ones, and trims. The ones in `jobs` that had ended on the disk before stay
    /// as they are, and are returned.
    ZResult<std::vector<Job>> Write(std::span<const Job> jobs);
    /// Removes some of what is more than the bounds allow: the oldest that have ended, of the kind that has most.
    ZResult<void> Trim();
    /// Whether more is there than the bounds allow.
    bool IsOverfull() const { return m_overfull; }

    /// The newest that fit the query, `limit` at most, but those that `skip` names.
    ZResult<std::vector<Job>> List(const JobQuery& query, std::size_t limit,
                                   const std::function<bool(const ZString& id)>& skip);
    /// Those whose ids begin with that of the query, three at most.
    ZResult<std::vector<Job>> Find(const std::string& beginning);

    /// The greatest number of a job; 0: there is none.
    std::int64_t LastNumber() const { return m_lastNumber; }
    bool IsDamaged() const { return m_database->IsDamaged(); }
    /// What people ordered, in the same file.
    OrderStore& Orders() { return m_orders; }

private:
    JobStore(std::unique_ptr<Database> database, const Bounds& bounds);
    static ZResult<std::unique_ptr<JobStore>> OpenOnce(const std::filesystem::path& file, const Bounds& bounds,
                                                       bool& damaged);
    static ZResult<void> MakeTable(Database& database, bool isNew);
    ZResult<void> Count();
    ZResult<void> TrimStep();
    ZResult<std::int64_t> RemoveOldest(std::int64_t most, std::int64_t endedBefore, std::int64_t kind);

    const std::unique_ptr<Database> m_database;
    const Bounds m_bounds;
    std::int64_t m_rows = 0;
    std::int64_t m_lastNumber = 0;
    bool m_overfull = false;
    Statement m_write;
    Statement m_remove;
    Statement m_list;
    Statement m_find;
    OrderStore m_orders;
};

}  // namespace journal
