// A new SQLite database that one transaction fills, and its prepared statements.
//
// It keeps no journal and never waits for the disk: it is made for a file that nobody else sees
// until it is whole. Failures are WriteErrors that name the file.
#ifndef RVPMAP_SQLITEDATABASE_H
#define RVPMAP_SQLITEDATABASE_H

#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <string_view>

class SqliteDatabase {
  public:
    // Opens the empty file `path`; `shownName` is its name in messages. `interrupted` is asked now
    // and then during long statements, which end with a failure when it says yes.
    SqliteDatabase(const std::string& path, const std::string& shownName, bool (*interrupted)());

    void execute(const char* sql);
    // The last write reaches the file here. All statements must be gone.
    void close();

  private:
    friend class SqliteStatement;
    struct Closer {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };
    void check(int code) const;

    std::unique_ptr<sqlite3, Closer> m_database;
    std::string m_shownName;
};

// An INSERT, filled from the first parameter on: put, put, ..., then run.
class SqliteStatement {
  public:
    SqliteStatement(SqliteDatabase& database, const char* sql);

    void put(uint64_t value) {
        bound(sqlite3_bind_int64(m_statement.get(), ++m_filled, toSigned(value)));
    }
    void putSigned(int64_t value) {
        bound(sqlite3_bind_int64(m_statement.get(), ++m_filled, value));
    }
    // Text and bytes must stay until `run`.
    void put(std::string_view text);
    void putBytes(std::string_view bytes);
    void putNull() { bound(sqlite3_bind_null(m_statement.get(), ++m_filled)); }
    // The next row starts from the first parameter again.
    void run();

  private:
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    // SQLite's integers are signed; no size or offset of a real volume reaches the sign.
    static int64_t toSigned(uint64_t value) { return static_cast<int64_t>(value); }
    void bound(int code) { m_database.check(code); }

    SqliteDatabase& m_database;
    std::unique_ptr<sqlite3_stmt, Finalizer> m_statement;
    int m_filled = 0;
};

#endif
