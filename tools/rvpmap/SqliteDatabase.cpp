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

void SqliteDatabase::execute(const char* sql) {
    check(sqlite3_exec(m_database.get(), sql, nullptr, nullptr, nullptr));
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

SqliteStatement::SqliteStatement(SqliteDatabase& database, const char* sql) : m_database(database) {
    sqlite3_stmt* statement = nullptr;
    const int code = sqlite3_prepare_v3(database.m_database.get(), sql, -1,
                                        SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    m_statement.reset(statement);
    bound(code);
}

void SqliteStatement::put(std::string_view text) {
    bound(sqlite3_bind_text64(m_statement.get(), ++m_filled, text.data(), text.size(),
                              SQLITE_STATIC, SQLITE_UTF8));
}

void SqliteStatement::putBytes(std::string_view bytes) {
    bound(sqlite3_bind_blob64(m_statement.get(), ++m_filled, bytes.data(), bytes.size(),
                              SQLITE_STATIC));
}

void SqliteStatement::run() {
    const int code = sqlite3_step(m_statement.get());
    if (code != SQLITE_DONE) {
        bound(code);
    }
    sqlite3_reset(m_statement.get());
    m_filled = 0;
}
