#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string_view>

#include "ZShared/ZAllocator.h"
#include "ZShared/ZError.h"

struct sqlite3;
struct sqlite3_stmt;

namespace journal {

/// A database file that this process has to itself. What is committed is on the disk. Used from one thread.
class Database {
public:
    /// Opens the file, or makes it; its folder must be there.
    static ZResult<std::unique_ptr<Database>> Open(const std::filesystem::path& file);
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /// Runs statements that have no parameters and no rows.
    ZResult<void> Run(const char* statements);
    /// The first column of the first row; 0 when there is none.
    ZResult<std::int64_t> Number(const char* statement);
    /// How many rows the last statement changed.
    std::int64_t Changes() const;

    /// Whether the file was found to be damaged, or no database at all.
    bool IsDamaged() const { return m_damaged; }

private:
    friend class Statement;
    struct Close {
        void operator()(sqlite3* handle) const;
    };

    explicit Database(std::filesystem::path file) : m_file(std::move(file)) {}
    /// What SQLite's `code` means for this file.
    ZError ErrorOf(int code);

    const std::filesystem::path m_file;
    std::unique_ptr<sqlite3, Close> m_handle;
    bool m_damaged = false;
};

/// A statement that is prepared once and run many times: Start, Next until it is false, End. Must not outlive its
/// database.
class Statement {
public:
    /// What is wrong with the text is told by the first End.
    Statement(Database& database, std::string_view text);
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// Begins a run with these parameters, in order: whole numbers and texts.
    template <typename... Values>
    void Start(const Values&... values) {
        Reset();
        (Bind(values), ...);
    }
    /// Adds the next parameter.
    void Bind(std::int64_t value);
    void Bind(std::string_view text);
    /// Whether there is one more row.
    bool Next();
    /// Ends the run, before its last row too. What went wrong in it, if anything did.
    ZResult<void> End();
    /// Runs to the end.
    ZResult<void> Finish();

    std::int64_t Number(int column) const;
    ZString Text(int column) const;

private:
    struct Finalize {
        void operator()(sqlite3_stmt* handle) const;
    };
    void Reset();
    void Note(int code);

    Database& m_database;
    std::unique_ptr<sqlite3_stmt, Finalize> m_handle;
    int m_prepared;    // SQLite's code
    int m_failed = 0;  // likewise, of this run
    int m_bound = 0;   // parameters
};

/// Changes that are made as a whole or not at all: not at all, unless Commit has succeeded.
class Transaction {
public:
    explicit Transaction(Database& database) : m_database(database), m_begun(database.Run("BEGIN IMMEDIATE")) {}
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    /// Whether it could be begun.
    const ZResult<void>& Begun() const { return m_begun; }
    ZResult<void> Commit();

private:
    Database& m_database;
    const ZResult<void> m_begun;
    bool m_committed = false;
};

}  // namespace journal
