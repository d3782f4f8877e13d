#include "JobStore.h"

#include "MessageRows.h"
#include "ZShared/ZLog.h"
#include "ZShared/ZProcess.h"

namespace fs = std::filesystem;

namespace journal {

namespace {

constexpr ZLogger Log() {
    return ZLogger("ZNodeJournal");
}

using Rows = MessageRows<ZOperationMsg>;

constexpr std::int64_t kSchema = 1;
constexpr std::int64_t kMostRemovedAtOnce = 256;
constexpr std::int64_t kMillisecondsOfDay = std::int64_t{24} * 60 * 60 * 1000;

/// The states are numbers: the first two are open. The index over the open ones has a few entries only.
constexpr const char* kTable =
    "CREATE TABLE operations(number INTEGER PRIMARY KEY, \"id\" TEXT NOT NULL UNIQUE,"
    " \"state\" INTEGER NOT NULL DEFAULT 0);"
    "CREATE INDEX open ON operations(number) WHERE \"state\" < 2;"
    "PRAGMA user_version=1;";

/// An install that runs may have a process that lives on, known or not: its node finds out.
constexpr const char* kLose =
    "UPDATE operations SET reason = CASE state WHEN 0 THEN 'the host ended before it began'"
    " ELSE 'the host ended while it ran' END, endedAt = ?1, took = 0, state = ?2 WHERE state < 2 AND processId = 0"
    " AND NOT (state = 1 AND kind = ?3)";

std::string WriteText() {
    return "INSERT INTO operations(number," + Rows::Columns() + ") VALUES(?," + Rows::Places() +
           ") ON CONFLICT(id) DO UPDATE SET " + Rows::Changes() + " WHERE operations.state < 2";
}

constexpr const char* kRemove =
    "DELETE FROM operations WHERE number IN (SELECT number FROM (SELECT number, endedAt FROM operations"
    " WHERE state >= 2 AND (?3 < 0 OR kind = ?3) ORDER BY number LIMIT ?1) WHERE endedAt < ?2)";

/// The kind of which there are most makes room: whoever causes thousands of checks must not push out what was
/// installed.
constexpr const char* kMostFrequent =
    "SELECT kind FROM operations WHERE state >= 2 GROUP BY kind ORDER BY count(*) DESC LIMIT 1";
constexpr const char* kIndex = "CREATE INDEX IF NOT EXISTS kinds ON operations(\"kind\") WHERE \"state\" >= 2";
constexpr std::int64_t kAnyKind = -1;

std::string ListText() {
    return "SELECT number," + Rows::Columns() +
           " FROM operations WHERE number < ?1 AND (?2 < 0 OR kind = ?2) AND (?3 < 0 OR state = ?3)"
           " AND (?4 = '' OR node = ?4) AND createdAt >= ?5 ORDER BY number DESC";
}

std::string FindText() {
    // The last character that there is ends the range of texts that begin so.
    return "SELECT number," + Rows::Columns() +
           " FROM operations WHERE id >= ?1 AND id <= ?1 || char(1114111) ORDER BY id LIMIT 3";
}

std::string OpenText() {
    return "SELECT number," + Rows::Columns() + " FROM operations WHERE state < 2 ORDER BY number";
}

/// Takes rows that begin with a number, until `limit` are there.
ZResult<std::vector<Job>> Read(
    Statement& statement, std::size_t limit = std::numeric_limits<std::size_t>::max(),
    const std::function<bool(const ZString&)>& skip = [](const ZString&) { return false; }) {
    std::vector<Job> jobs;
    while (jobs.size() < limit && statement.Next()) {
        Job job{statement.Number(0), Rows::Read(statement, 1)};
        if (!skip(job.message->m_Id)) {
            jobs.push_back(std::move(job));
        }
    }
    if (auto ended = statement.End(); !ended) {
        return ended.error();
    }
    return jobs;
}

template <typename Enum>
std::int64_t NumberOf(const std::optional<Enum>& value) {
    return value ? static_cast<std::int64_t>(*value) : -1;
}

}  // namespace

JobStore::JobStore(std::unique_ptr<Database> database, const Bounds& bounds)
    : m_database(std::move(database)),
      m_bounds(bounds),
      m_write(*m_database, WriteText()),
      m_remove(*m_database, kRemove),
      m_list(*m_database, ListText()),
      m_find(*m_database, FindText()),
      m_orders(*m_database, bounds.orders) {}

ZResult<std::unique_ptr<JobStore>> JobStore::Open(const fs::path& file, const Bounds& bounds) {
    std::error_code code;
    fs::create_directories(file.parent_path(), code);  // opening the file says what is wrong
    bool damaged = false;
    auto store = OpenOnce(file, bounds, damaged);
    if (!damaged) {
        return store;
    }
    Z_LOG(4, "%s; it is kept as %s.damaged, and begun anew", store.error().text, file);
    MoveAside(file);
    return OpenOnce(file, bounds, damaged);
}

void JobStore::MoveAside(const fs::path& file) {
    for (const char* part : {"", "-wal"}) {
        const fs::path damaged = file.string() + ".damaged" + part;
        std::error_code code;
        fs::remove(damaged, code);  // an earlier one's log must not be taken for this one's
        fs::rename(file.string() + part, damaged, code);
        if (code && code != std::errc::no_such_file_or_directory) {
            Z_LOG(4, "%s can't be moved aside: %s", file.string() + part, code.message());
        }
    }
}

ZResult<std::unique_ptr<JobStore>> JobStore::OpenOnce(const fs::path& file, const Bounds& bounds, bool& damaged) {
    auto opened = Database::Open(file);
    if (!opened) {
        damaged = false;
        return opened.error();
    }
    std::unique_ptr<Database> database = std::move(opened.value());
    const Database& state = *database;  // whoever owns it
    const auto version = database->Number("PRAGMA user_version");
    if (version && *version > kSchema) {
        return ZError(file.string() + " was written by a newer version of this program",
                      ZFrameworkErrorCodes::ERRCODE_NOT_SUPPORTED);
    }
    ZResult<void> made = version ? MakeTable(*database, *version == 0) : version.error();
    std::unique_ptr<JobStore> store;
    if (made) {
        store.reset(new JobStore(std::move(database), bounds));
        made = store->Count();
    }
    damaged = !made && state.IsDamaged();
    if (!made) {
        return made.error();
    }
    return store;
}

ZResult<void> JobStore::MakeTable(Database& database, bool isNew) {
    Transaction transaction(database);
    ZResult<void> made = transaction.Begun();
    made = made && isNew ? database.Run(kTable) : made;
    made = made ? Rows::AddColumns(database, "operations") : made;
    made = made ? database.Run(kIndex) : made;
    made = made ? OrderStore::MakeTable(database) : made;
    return made ? transaction.Commit() : made;
}

ZResult<void> JobStore::Count() {
    const auto rows = m_database->Number("SELECT count(*) FROM operations");
    const auto last = m_database->Number("SELECT max(number) FROM operations");
    if (!rows || !last) {
        return (rows ? last : rows).error();
    }
    m_rows = *rows;
    m_lastNumber = *last;
    m_overfull = m_rows > m_bounds.rows;
    if (auto counted = m_orders.Count(); !counted) {
        return counted;
    }
    return m_database->Run("PRAGMA shrink_memory");  // counting has filled the cache
}

ZResult<void> JobStore::LoseOpenJobs() {
    Statement lose(*m_database, kLose);
    lose.Start(MillisecondsNow(), static_cast<std::int64_t>(ZOperationState::Lost),
               static_cast<std::int64_t>(ZOperationKind::Install));
    return lose.Finish();
}

ZResult<std::vector<Job>> JobStore::OpenJobs() {
    Statement open(*m_database, OpenText());
    open.Start();
    return Read(open);
}

ZResult<std::vector<Job>> JobStore::Write(std::span<const Job> jobs) {
    Transaction transaction(*m_database);
    if (!transaction.Begun()) {
        return transaction.Begun().error();
    }
    std::vector<Job> ended;
    const std::int64_t rows = m_rows;
    const std::int64_t last = m_lastNumber;
    ZResult<void> outcome;
    for (const Job& job : jobs) {
        m_write.Start(job.number);
        Rows::Bind(m_write, *job.message);
        outcome = m_write.Finish();
        if (!outcome) {
            break;
        }
        if (m_database->Changes() == 0) {
            ended.push_back(job);
        } else if (job.number > m_lastNumber) {
            m_lastNumber = job.number;
            ++m_rows;
        }
    }
    outcome = outcome ? TrimStep() : outcome;
    outcome = outcome ? transaction.Commit() : outcome;
    if (!outcome) {
        m_rows = rows;
        m_lastNumber = last;
        return outcome.error();
    }
    return ended;
}

ZResult<void> JobStore::Trim() {
    if (auto written = Write({}); !written) {
        return written.error();
    }
    return {};
}

ZResult<void> JobStore::TrimStep() {
    std::int64_t removed = 0;
    const std::int64_t wanted = m_rows - m_bounds.rows;
    if (wanted > 0) {
        const auto kind = m_database->Number(kMostFrequent);
        // Some more at once than must go, so that not every job's beginning has to remove one.
        const auto oldest = kind ? RemoveOldest(std::min(wanted + m_bounds.rows / 100, kMostRemovedAtOnce),
                                                std::numeric_limits<std::int64_t>::max(), *kind)
                                 : kind;
        if (!oldest) {
            return oldest.error();
        }
        removed = *oldest;
    }
    if (m_bounds.days > 0 && removed == 0) {
        const auto aged =
            RemoveOldest(kMostRemovedAtOnce, MillisecondsNow() - m_bounds.days * kMillisecondsOfDay, kAnyKind);
        if (!aged) {
            return aged.error();
        }
        removed = *aged;
    }
    m_overfull = removed == kMostRemovedAtOnce;
    return {};
}

ZResult<std::int64_t> JobStore::RemoveOldest(std::int64_t most, std::int64_t endedBefore, std::int64_t kind) {
    m_remove.Start(most, endedBefore, kind);
    if (auto removed = m_remove.Finish(); !removed) {
        return removed.error();
    }
    m_rows -= m_database->Changes();
    return m_database->Changes();
}

ZResult<std::vector<Job>> JobStore::List(const JobQuery& query, std::size_t limit,
                                         const std::function<bool(const ZString& id)>& skip) {
    m_list.Start(query.before, NumberOf(query.kind), NumberOf(query.state), query.node, query.since);
    return Read(m_list, limit, skip);
}

ZResult<std::vector<Job>> JobStore::Find(const std::string& beginning) {
    m_find.Start(beginning);
    return Read(m_find);
}

}  // namespace journal
