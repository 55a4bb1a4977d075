#include "CatalogWriter.h"
#include "FileVisit.h"
#include "Session.h"

#include <sys/stat.h>

namespace {

class Cataloguer {
  public:
    Cataloguer(Session& session, CatalogWriter& writer)
        : m_session(session), m_writer(writer),
          m_failures(session.options.volume, Failures::When::AT_ONCE) {}

    ExitStatus run() {
        m_writer.begin();
        visitEveryFile(m_session.volume, "catalog", m_failures,
                       [&](const std::string& path, File& file) { add(path, file); });
        m_writer.end(m_failures.count());
        return m_failures.count() == 0 ? ExitStatus::DONE : ExitStatus::FAILED;
    }

  private:
    void add(const std::string& path, File& file) {
        std::optional<std::string> target;
        if (file.typeBits() == S_IFLNK) {
            attempt(path, [&] { target = file.linkTarget(); });
        }
        m_writer.beginFile(path, file, target);
        if (m_session.options.extents) {
            attempt(path, [&] { addExtents(file); });
        }
        m_writer.endFile();
        m_session.output.pace();
    }

    void addExtents(File& file) {
        ExtentCursor cursor(file);
        while (const Run* run = cursor.next()) {
            if (!run->isHole()) {
                m_writer.addExtent(*run);
            }
        }
    }

    template <typename Action>
    void attempt(const std::string& path, Action action) {
        try {
            action();
        } catch (const WriteError&) {
            throw;
        } catch (const ToolError& error) {
            m_failures.add(path, error.what());
        }
    }

    Session& m_session;
    CatalogWriter& m_writer;
    Failures m_failures;
};

} // namespace

ExitStatus runCatalog(Session& session) {
    const auto writer = makeCatalogWriter(session);
    return Cataloguer(session, *writer).run();
}
