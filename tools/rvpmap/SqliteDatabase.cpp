#include "SqliteDatabase.h"

#include "ExitStatus.h"
#include "Text.h"

#include <cstring>
#include <fmt/format.h>

namespace {

// The file has one writer and no reader yet, so nothing needs to be locked.
constexpr const char* VFS = "unix-none";
constexpr const char* SETTINGS = "PRAGMA page_size=16384;"
                                 "PRAGMA journal_mode=OFF;"
                                 "PRAGMA synchronous=OFF;"
                                 "PRAGMA locking_mode=EXCLUSIVE;"
                                 "PRAGMA cache_size=-32768;"; // kibibytes
constexpr int STEPS_BETWEEN_QUESTIONS = 100'000;

// One thread uses SQLite, and nobody asks how much memory it has: no lock around each allocation.
void setUpLibrary() {
    sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

int askInterrupted(void* interrupted) {
    return (*reinterpret_cast<bool (*)()>(interrupted))() ? 1 : 0;
}

} // namespace

SqliteDatabase::SqliteDatabase(const std::string& path, const std::string& shownName,
                               bool (*interrupted)())
    : m_shownName(shownName) {
    setUpLibrary();
    sqlite3* database = nullptr;
    // A name that begins like a URI is still a name.
    const std::string name = path.front() == '/' ? path : "./" + path;
    const int code = sqlite3_open_v2(name.c_str(), &database, SQLITE_OPEN_READWRITE, VFS);
    m_database.reset(database);
    check(code);
    sqlite3_progress_handler(database, STEPS_BETWEEN_QUESTIONS, askInterrupted,
                             reinterpret_cast<void*>(interrupted));
    execute(SETTINGS);
}

void SqliteDatabase::execute(const std::string& sql) {
    check(sqlite3_exec(m_database.get(), sql.c_str(), nullptr, nullptr, nullptr));
}

void SqliteDatabase::close() {
    check(sqlite3_close(m_database.get()));
    static_cast<void>(m_database.release());
}

void SqliteDatabase::check(int code) const {
    if (code == SQLITE_OK || code == SQLITE_DONE) {
        return;
    }
    sqlite3* database = m_database.get();
    const int error = database != nullptr ? sqlite3_system_errno(database) : 0;
    const std::string cause = error != 0 ? fmt::format(" ({})", std::strerror(error)) : "";
    throw WriteError(
        fmt::format("cannot write to {}: {}{}; nothing is left there", printable(m_shownName),
                    database != nullptr ? sqlite3_errmsg(database) : sqlite3_errstr(code), cause));
}

SqliteInserter::SqliteInserter(SqliteDatabase& database, const std::string& table,
                               std::size_t columns)
    : m_database(database), m_table(table), m_columns(columns), m_wholeBatch(prepare(BATCH_ROWS)),
      m_values(BATCH_ROWS * columns) {}

SqliteInserter::Statement SqliteInserter::prepare(std::size_t rows) const {
    std::string row = "(?";
    for (std::size_t i = 1; i < m_columns; ++i) {
        row += ",?";
    }
    row += ')';
    std::string sql = "INSERT INTO " + m_table + " VALUES " + row;
    for (std::size_t i = 1; i < rows; ++i) {
        sql += ',' + row;
    }
    sqlite3_stmt* statement = nullptr;
    const int code = sqlite3_prepare_v3(m_database.m_database.get(), sql.c_str(), -1,
                                        SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    Statement result(statement);
    m_database.check(code);
    return result;
}

void SqliteInserter::flush() {
    const std::size_t rows = m_filled / m_columns;
    if (rows == 0) {
        return;
    }
    const Statement part = rows == BATCH_ROWS ? Statement() : prepare(rows);
    sqlite3_stmt* statement = part ? part.get() : m_wholeBatch.get();
    for (std::size_t i = 0; i < m_filled; ++i) {
        m_database.check(bind(statement, static_cast<int>(i + 1), m_values[i]));
    }
    m_database.check(sqlite3_step(statement));
    sqlite3_reset(statement);
    m_filled = 0;
    m_copies.clear();
}

int SqliteInserter::bind(sqlite3_stmt* statement, int parameter, const Value& value) const {
    const char* copy = m_copies.data() + (value.kind == Kind::INTEGER ? 0 : value.number);
    switch (value.kind) {
    case Kind::INTEGER:
        return sqlite3_bind_int64(statement, parameter, value.number);
    case Kind::TEXT:
        return sqlite3_bind_text64(statement, parameter, copy, value.length, SQLITE_STATIC,
                                   SQLITE_UTF8);
    case Kind::BYTES:
        return sqlite3_bind_blob64(statement, parameter, copy, value.length, SQLITE_STATIC);
    case Kind::NOTHING:
        break;
    }
    return sqlite3_bind_null(statement, parameter);
}
