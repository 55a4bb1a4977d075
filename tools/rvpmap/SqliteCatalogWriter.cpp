#include "SqliteCatalogWriter.h"

#include "FileSystemText.h"
#include "FileTime.h"
#include "IndexSet.h"
#include "PhysicalMap.h"
#include "ResultFile.h"
#include "Signals.h"
#include "SqliteDatabase.h"
#include "Text.h"

#include "fso/IFileSystemObjectV1.h"

#include <sys/stat.h>

namespace {

// No constraints: each would be checked for every row, and the rows come from here alone.
constexpr const char* TABLES = R"sql(
PRAGMA application_id=0x5256504D; -- "RVPM"
PRAGMA user_version=1;
BEGIN;
CREATE TABLE volume (
    name TEXT, label TEXT, uuid TEXT, filesystem TEXT, block_size INTEGER, block_count INTEGER,
    free_blocks INTEGER, file_slots INTEGER, free_file_slots INTEGER, root_index INTEGER,
    journal_pending INTEGER, marked_damaged INTEGER, with_extents INTEGER, failures INTEGER);
CREATE TABLE file (
    id INTEGER PRIMARY KEY, path TEXT, path_bytes BLOB, file_index INTEGER, type TEXT,
    mode INTEGER, nlink INTEGER, uid INTEGER, gid INTEGER, size INTEGER, blocks INTEGER,
    atime INTEGER, atime_ns INTEGER, mtime INTEGER, mtime_ns INTEGER, ctime INTEGER,
    ctime_ns INTEGER, crtime INTEGER, crtime_ns INTEGER, target TEXT, target_bytes BLOB);
CREATE TABLE extent (
    id INTEGER PRIMARY KEY, file_index INTEGER, logical INTEGER, physical INTEGER,
    length INTEGER, unwritten INTEGER, inline INTEGER, encoded INTEGER, last INTEGER);
CREATE TABLE disk (id INTEGER PRIMARY KEY, name TEXT, size INTEGER);
CREATE TABLE disk_run (
    extent INTEGER REFERENCES extent (id), logical INTEGER, disk INTEGER REFERENCES disk (id),
    offset INTEGER, length INTEGER, rebuilt INTEGER, copy INTEGER);
)sql";

// Made when the rows are there: sorting once is cheaper than keeping order all the time.
constexpr const char* INDICES = R"sql(
CREATE INDEX file_by_index ON file (file_index);
CREATE INDEX extent_by_file ON extent (file_index);
CREATE INDEX extent_by_physical ON extent (physical);
CREATE INDEX disk_run_by_offset ON disk_run (disk, offset);
COMMIT;
)sql";

uint64_t diskId(std::size_t index) {
    return index + 1;
}

uint64_t bit(uint64_t word, uint64_t mask) {
    return (word & mask) != 0 ? 1 : 0;
}

class SqliteCatalogWriter : public CatalogWriter {
  public:
    explicit SqliteCatalogWriter(Session& session)
        : m_session(session), m_result(session.options.output, AtomicFile::Until::NAMED),
          m_database(m_result.temporaryPath(), session.options.output, signalCame),
          m_map(session.volume.source(), session.stack) {}

    void begin() override {
        m_database.execute(TABLES);
        m_tables.emplace(m_database);
        insertDisks();
    }

    void beginFile(const std::string& path, const File& file,
                   const std::optional<std::string>& target) override {
        checkSignals();
        m_fileIndex = file.index();
        // Runs belong to the file, however many paths it has.
        m_extentsWanted = !file.hasSeveralPaths() || m_linked.insert(file.index());
        insertFile(path, file, target);
    }

    void addExtent(const Run& run) override {
        if (m_extentsWanted) {
            insertExtent(run);
        }
    }

    void endFile() override {}

    void end(std::size_t failures) override {
        insertVolume(failures);
        m_tables->flush();
        m_tables.reset();
        finishTables();
        m_database.close();
        checkSignals();
        m_result.commit();
    }

  private:
    struct Tables {
        explicit Tables(SqliteDatabase& database)
            : volume(database, "volume", 14), file(database, "file", 21),
              extent(database, "extent", 9), disk(database, "disk", 3),
              diskRun(database, "disk_run", 7) {}
        void flush() {
            for (SqliteInserter* table : {&volume, &file, &extent, &disk, &diskRun}) {
                table->flush();
            }
        }
        SqliteInserter volume;
        SqliteInserter file;
        SqliteInserter extent;
        SqliteInserter disk;
        SqliteInserter diskRun;
    };

    // A long statement ends with a failure after a signal, which is then the real reason.
    void finishTables() {
        try {
            if (m_map.ownDisk()) {
                copyExtentsAsDiskRuns(diskId(*m_map.ownDisk()));
            }
            m_database.execute(INDICES);
        } catch (const ToolError&) {
            checkSignals();
            throw;
        }
    }

    void insertDisks() {
        SqliteInserter& row = m_tables->disk;
        for (std::size_t disk = 0; disk < m_map.disks().size(); ++disk) {
            row.put(diskId(disk));
            row.put(std::string_view(toUtf8(m_map.disks()[disk]->name())));
            row.put(m_map.disks()[disk]->size());
            row.endRow();
        }
    }

    void insertVolume(std::size_t failures) {
        Volume& volume = m_session.volume;
        const kmp_fs& fs = volume.statistics();
        const std::string name = toUtf8(m_session.options.volume);
        const std::string label = toUtf8(volume.label());
        const std::string uuid = uuidText(volume.uuid());
        SqliteInserter& row = m_tables->volume;
        row.put(name);
        row.put(label);
        row.put(uuid);
        row.put(std::string_view(fileSystemName(fs.type)));
        for (const uint64_t value :
             {fs.blockSize, fs.blockCount, fs.freeBlocks, fs.fileCount, fs.freeFiles,
              volume.rootIndex(), bit(fs.state, FSO_FS_NEEDS_RECOVERY),
              bit(fs.state, FSO_FS_HAS_ERRORS), uint64_t{m_session.options.extents},
              uint64_t{failures}}) {
            row.put(value);
        }
        row.endRow();
    }

    void insertFile(const std::string& path, const File& file,
                    const std::optional<std::string>& target) {
        const kmp_file& attributes = file.attributes();
        SqliteInserter& row = m_tables->file;
        row.put(++m_row);
        putName(row, path);
        row.put(file.index());
        row.put(typeName(file.typeBits()));
        for (const uint64_t value :
             {attributes.mode, attributes.linkCount, attributes.owner & UINT32_MAX,
              attributes.owner >> 32, attributes.size, attributes.blocks}) {
            row.put(value);
        }
        putTime(row, attributes.accessTime);
        putTime(row, attributes.modifyTime);
        putTime(row, attributes.changeTime);
        if (isKept(attributes.createTime)) {
            putTime(row, attributes.createTime);
        } else {
            row.putNull();
            row.putNull();
        }
        if (target) {
            putName(row, *target);
        } else {
            row.putNull();
            row.putNull();
        }
        row.endRow();
    }

    // As text, and where that is not exact, as bytes.
    static void putName(SqliteInserter& row, const std::string& name) {
        if (isUtf8(name)) {
            row.put(std::string_view(name));
            row.putNull();
        } else {
            row.put(std::string_view(toUtf8(name)));
            row.putBytes(name);
        }
    }

    static void putTime(SqliteInserter& row, const km_time& time) {
        const timespec value = toTimespec(time);
        row.putSigned(value.tv_sec);
        row.putSigned(value.tv_nsec);
    }

    void insertExtent(const Run& run) {
        SqliteInserter& row = m_tables->extent;
        row.put(++m_extent);
        row.put(m_fileIndex);
        row.put(run.logical);
        row.put(run.physical);
        row.put(run.length);
        for (const uint32_t flag :
             {FSO_EXTENT_UNWRITTEN, FSO_EXTENT_INLINE, FSO_EXTENT_ENCODED, FSO_EXTENT_LAST}) {
            row.put(bit(run.flags, flag));
        }
        row.endRow();
        if (!m_map.ownDisk()) {
            insertDiskRuns(run);
        }
    }

    // Where volume and disk are the same, all at once is much faster than run by run.
    void copyExtentsAsDiskRuns(uint64_t disk) {
        m_database.execute(fmt::format(
            "INSERT INTO disk_run SELECT id,logical,{},physical,length,0,0 FROM extent", disk));
    }

    void insertDiskRuns(const Run& run) {
        m_runs.clear();
        m_map.append(run.physical, run.length, m_runs);
        SqliteInserter& row = m_tables->diskRun;
        for (const PhysicalRun& piece : m_runs) {
            row.put(m_extent);
            row.put(run.logical + (piece.logical - run.physical));
            row.put(diskId(piece.disk));
            row.put(piece.offset);
            row.put(piece.length);
            row.put(uint64_t{piece.rebuilt});
            row.put(uint64_t{piece.copy});
            row.endRow();
        }
    }

    Session& m_session;
    ResultFile m_result;
    SqliteDatabase m_database;
    PhysicalMap m_map;
    std::optional<Tables> m_tables;
    IndexSet m_linked;
    uint64_t m_row = 0;
    uint64_t m_fileIndex = 0;
    bool m_extentsWanted = true;
    uint64_t m_extent = 0;
    std::vector<PhysicalRun> m_runs;
};

} // namespace

std::unique_ptr<CatalogWriter> makeSqliteCatalogWriter(Session& session) {
    noteSignals();
    return std::make_unique<SqliteCatalogWriter>(session);
}
