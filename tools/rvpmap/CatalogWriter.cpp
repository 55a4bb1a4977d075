#include "CatalogWriter.h"

#include "Csv.h"
#include "Json.h"
#include "SqliteCatalogWriter.h"

namespace {

class NdjsonWriter : public CatalogWriter {
  public:
    NdjsonWriter(Output& output, bool extents) : m_output(output), m_extents(extents) {}

    void beginFile(const std::string& path, const File& file,
                   const std::optional<std::string>& target) override {
        TextBuffer& out = m_output.buffer();
        out.push_back('{');
        appendJsonStat(out, path, file, target);
        if (m_extents) {
            append(out, ",\"extents\":[");
        }
        m_first = true;
    }
    void addExtent(const Run& run) override {
        appendJsonExtent(m_output.buffer(), run, m_first);
        m_first = false;
        m_output.pace();
    }
    void endFile() override { append(m_output.buffer(), m_extents ? "]}\n" : "}\n"); }

  private:
    Output& m_output;
    bool m_extents;
    bool m_first = true;
};

class CsvWriter : public CatalogWriter {
  public:
    CsvWriter(Output& output, bool extents) : m_output(output), m_extents(extents) {}

    void begin() override { appendCsvHeader(m_output.buffer(), m_extents); }
    void beginFile(const std::string& path, const File& file,
                   const std::optional<std::string>& target) override {
        appendCsvFields(m_output.buffer(), path, file, target);
        if (m_extents) {
            m_output.buffer().push_back(',');
        }
        m_first = true;
    }
    void addExtent(const Run& run) override {
        appendCsvExtent(m_output.buffer(), run, m_first);
        m_first = false;
        m_output.pace();
    }
    void endFile() override { appendCsvLineEnd(m_output.buffer()); }

  private:
    Output& m_output;
    bool m_extents;
    bool m_first = true;
};

// One line a file, with the number of its extents, so the line waits for the file's end.
class TableWriter : public CatalogWriter {
  public:
    explicit TableWriter(Session& session) : m_session(session) {}

    void beginFile(const std::string& path, const File& file,
                   const std::optional<std::string>& target) override {
        m_path = &path;
        m_file = &file;
        m_target = target;
        m_extents = 0;
    }
    void addExtent(const Run& /*run*/) override { ++m_extents; }
    void endFile() override {
        m_session.table.appendFile(m_session.output.buffer(), *m_path, *m_file, m_target,
                                   m_session.options.extents ? std::optional(m_extents)
                                                             : std::nullopt);
    }

  private:
    Session& m_session;
    const std::string* m_path = nullptr;
    const File* m_file = nullptr;
    std::optional<std::string> m_target;
    uint64_t m_extents = 0;
};

} // namespace

std::unique_ptr<CatalogWriter> makeCatalogWriter(Session& session) {
    const bool extents = session.options.extents;
    switch (session.options.format) {
    case Format::CSV:
        return std::make_unique<CsvWriter>(session.output, extents);
    case Format::NDJSON:
        return std::make_unique<NdjsonWriter>(session.output, extents);
    case Format::SQLITE:
        return makeSqliteCatalogWriter(session);
    case Format::TABLE:
        break;
    }
    return std::make_unique<TableWriter>(session);
}
