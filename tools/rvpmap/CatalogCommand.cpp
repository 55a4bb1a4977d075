#include "CatalogWriter.h"
#include "Path.h"
#include "Progress.h"
#include "Session.h"
#include "TreeWalk.h"

#include <sys/stat.h>

namespace {

class Cataloguer {
  public:
    Cataloguer(Session& session, CatalogWriter& writer)
        : m_session(session), m_writer(writer),
          m_failures(session.options.volume, Failures::When::AT_ONCE),
          m_progress("catalog", Progress::Unit::FILES, filesInUse(session.volume)) {}

    ExitStatus run() {
        FoundFile root = findFile(m_session.volume, "/");
        m_writer.begin();
        add(root.path, root.file);
        TreeWalk walk(std::move(root.file), root.path, TreeWalk::Open::ALL, m_failures);
        for (auto step = walk.next(); step != TreeWalk::Step::END; step = walk.next()) {
            if (step == TreeWalk::Step::ENTRY) {
                add(walk.path(), walk.file());
            }
        }
        return m_failures.count() == 0 ? ExitStatus::DONE : ExitStatus::FAILED;
    }

  private:
    static uint64_t filesInUse(const Volume& volume) {
        const kmp_fs& fs = volume.statistics();
        return fs.fileCount - std::min(fs.freeFiles, fs.fileCount);
    }

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
        m_progress.advance(1);
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
        } catch (const ToolError& error) {
            m_failures.add(path, error.what());
        }
    }

    Session& m_session;
    CatalogWriter& m_writer;
    Failures m_failures;
    Progress m_progress;
};

} // namespace

ExitStatus runCatalog(Session& session) {
    const auto writer = makeCatalogWriter(session);
    return Cataloguer(session, *writer).run();
}
