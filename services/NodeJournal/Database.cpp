#include "Database.h"

#include <sqlite3.h>

namespace journal {

namespace {

/// Nobody else reads the file, so it needs no memory that processes share; what is committed has reached the disk; the
/// cache stays small, and so does the log in which changes are collected.
constexpr const char* kSettings =
    "PRAGMA locking_mode=EXCLUSIVE;"
    "PRAGMA journal_mode=WAL;"
    "PRAGMA synchronous=FULL;"
    "PRAGMA cache_size=-128;"
    "PRAGMA mmap_size=0;"
    "PRAGMA wal_autocheckpoint=256;"
    "PRAGMA journal_size_limit=1048576;";

/// Memory is taken as it is needed, not set aside. Once, before the library is used; where another part of the process
/// uses it already, nothing changes.
bool SaveMemory() {
    return ::sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0) == SQLITE_OK &&
           ::sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0) == SQLITE_OK;
}

bool IsDamage(int code) {
    return (code & 0xFF) == SQLITE_CORRUPT || (code & 0xFF) == SQLITE_NOTADB;
}

/// The system's own reason for an error of a read or a write, 0 when it is not known: SQLite keeps that of a commit
/// with the file it was about, which is the log of changes or the database.
int SystemReason(sqlite3* handle, int code) {
    int reason = ::sqlite3_system_errno(handle);
    for (const int which : {SQLITE_FCNTL_JOURNAL_POINTER, SQLITE_FCNTL_FILE_POINTER}) {
        sqlite3_file* file = nullptr;
        if (reason == 0 && (code & 0xFF) == SQLITE_IOERR &&
            ::sqlite3_file_control(handle, "main", which, static_cast<void*>(&file)) == SQLITE_OK && file != nullptr &&
            file->pMethods != nullptr) {
            file->pMethods->xFileControl(file, SQLITE_FCNTL_LAST_ERRNO, &reason);
        }
    }
    return reason;
}

}  // namespace

void Database::Close::operator()(sqlite3* handle) const {
    ::sqlite3_close_v2(handle);
}

ZResult<std::unique_ptr<Database>> Database::Open(const std::filesystem::path& file) {
    [[maybe_unused]] static const bool saved = SaveMemory();
    std::unique_ptr<Database> database(new Database(file));
    sqlite3* handle = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
    const int code = ::sqlite3_open_v2(file.c_str(), &handle, flags, nullptr);
    database->m_handle.reset(handle);  // there is one even when opening failed
    if (code != SQLITE_OK) {
        return database->ErrorOf(code);
    }
    if (auto set = database->Run(kSettings); !set) {
        if (!database->m_damaged) {
            return set.error();
        }
    }
    return database;
}

ZError Database::ErrorOf(int code) {
    m_damaged = m_damaged || IsDamage(code);
    std::string text = m_file.string() + ": " + ::sqlite3_errstr(code);
    const bool isLast = m_handle && ::sqlite3_extended_errcode(m_handle.get()) == code;
    const std::string detail = isLast ? ::sqlite3_errmsg(m_handle.get()) : "";
    if (!detail.empty() && !text.ends_with(detail)) {
        text += " (" + detail + ')';
    }
    if (const int reason = isLast ? SystemReason(m_handle.get(), code) : 0; reason != 0) {
        return ZError::OfSystem(text, reason);
    }
    return ZError(text);
}

ZResult<void> Database::Run(const char* statements) {
    const int code = ::sqlite3_exec(m_handle.get(), statements, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) {
        return ErrorOf(code);
    }
    return {};
}

ZResult<std::int64_t> Database::Number(const char* statement) {
    Statement run(*this, statement);
    run.Start();
    const std::int64_t number = run.Next() ? run.Number(0) : 0;
    if (auto ended = run.End(); !ended) {
        return ended.error();
    }
    return number;
}

std::int64_t Database::Changes() const {
    return ::sqlite3_changes64(m_handle.get());
}

void Statement::Finalize::operator()(sqlite3_stmt* handle) const {
    ::sqlite3_finalize(handle);
}

Statement::Statement(Database& database, std::string_view text) : m_database(database) {
    sqlite3_stmt* handle = nullptr;
    m_prepared = ::sqlite3_prepare_v3(database.m_handle.get(), text.data(), static_cast<int>(text.size()),
                                      SQLITE_PREPARE_PERSISTENT, &handle, nullptr);
    m_handle.reset(handle);
}

void Statement::Reset() {
    ::sqlite3_reset(m_handle.get());
    m_failed = m_prepared;
    m_bound = 0;
}

void Statement::Note(int code) {
    m_failed = m_failed == SQLITE_OK ? code : m_failed;
}

void Statement::Bind(std::int64_t value) {
    Note(::sqlite3_bind_int64(m_handle.get(), ++m_bound, value));
}

void Statement::Bind(std::string_view text) {
    // Never a null pointer, which would bind NULL.
    Note(::sqlite3_bind_text64(m_handle.get(), ++m_bound, text.empty() ? "" : text.data(), text.size(),
                               SQLITE_TRANSIENT, SQLITE_UTF8));
}

bool Statement::Next() {
    if (m_failed != SQLITE_OK) {
        return false;
    }
    const int code = ::sqlite3_step(m_handle.get());
    Note(code == SQLITE_ROW || code == SQLITE_DONE ? SQLITE_OK : code);
    return code == SQLITE_ROW;
}

ZResult<void> Statement::End() {
    const int failed = m_failed;
    if (failed != SQLITE_OK) {
        const ZError error = m_database.ErrorOf(failed);
        ::sqlite3_reset(m_handle.get());
        return error;
    }
    ::sqlite3_reset(m_handle.get());
    return {};
}

ZResult<void> Statement::Finish() {
    while (Next()) {
    }
    return End();
}

std::int64_t Statement::Number(int column) const {
    return ::sqlite3_column_int64(m_handle.get(), column);
}

ZString Statement::Text(int column) const {
    const unsigned char* const text = ::sqlite3_column_text(m_handle.get(), column);
    const int size = ::sqlite3_column_bytes(m_handle.get(), column);
    return text == nullptr ? ZString() : ZString(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size));
}

Transaction::~Transaction() {
    if (m_begun && !m_committed) {
        // Some failures have ended it already; then there is nothing to take back.
        static_cast<void>(m_database.Run("ROLLBACK"));
    }
}

ZResult<void> Transaction::Commit() {
    auto done = m_database.Run("COMMIT");
    m_committed = done.has_value();
    return done;
}

}  // namespace journal
