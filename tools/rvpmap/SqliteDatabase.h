// A new SQLite database that one transaction fills, and its prepared
// statements.
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
#include <vector>

class SqliteDatabase {
  public:
    // Opens the empty file `path`; `shownName` is its name in messages. `interrupted` is asked now
    // and then during long statements, which end with a failure when it says yes.
    SqliteDatabase(const std::string& path, const std::string& shownName, bool (*interrupted)());

    void execute(const std::string& sql);
    // The last write reaches the file here. All inserters must be gone.
    void close();

  private:
    friend class SqliteInserter;
    struct Closer {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };
    void check(int code) const;

    std::unique_ptr<sqlite3, Closer> m_database;
    std::string m_shownName;
};

// Rows on their way into one table, a batch a statement: most of a small statement's time goes into
// its beginning and end.
class SqliteInserter {
  public:
    SqliteInserter(SqliteDatabase& database, const std::string& table, std::size_t columns);

    // The values of a row from its first column on. Text and bytes are copied.
    // SQLite's integers are signed; no size or offset of a real volume reaches the sign.
    void put(uint64_t value) { putSigned(static_cast<int64_t>(value)); }
    void putSigned(int64_t value) { m_values[m_filled++] = {Kind::INTEGER, value, 0}; }
    void put(std::string_view text) { putCopy(Kind::TEXT, text); }
    void putBytes(std::string_view bytes) { putCopy(Kind::BYTES, bytes); }
    void putNull() { m_values[m_filled++] = {Kind::NOTHING, 0, 0}; }
    void endRow() {
        if (m_filled == m_values.size()) {
            flush();
        }
    }
    // Brings all rows into the table; to be called behind the last one.
    void flush();

  private:
    static constexpr std::size_t BATCH_ROWS = 32;
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;
    enum class Kind : uint8_t { INTEGER, TEXT, BYTES, NOTHING };
    struct Value {
        Kind kind;
        int64_t number; // or where the copy begins
        std::size_t length;
    };

    Statement prepare(std::size_t rows) const;
    void putCopy(Kind kind, std::string_view bytes) {
        m_values[m_filled++] = {kind, static_cast<int64_t>(m_copies.size()), bytes.size()};
        m_copies.append(bytes);
    }
    int bind(sqlite3_stmt* statement, int parameter, const Value& value) const;

    SqliteDatabase& m_database;
    std::string m_table;
    std::size_t m_columns;
    Statement m_wholeBatch;
    std::vector<Value> m_values; // of a whole batch
    std::size_t m_filled = 0;
    std::string m_copies;
};

#endif
