#include "Json.h"
#include "Path.h"
#include "Session.h"
#include "Text.h"
#include "TreeWalk.h"

#include <algorithm>
#include <cstring>
#include <sys/stat.h>

namespace {

// Lines to be sorted by name, in one piece of memory.
class SortedLines {
  public:
    void add(std::string_view name, std::string_view line) {
        m_rows.push_back({0, m_text.size(), name.size(), line.size()});
        m_text.append(name).append(line);
    }
    void print(Output& output) {
        fillKeys();
        std::sort(m_rows.begin(), m_rows.end(), [this](const Row& left, const Row& right) {
            return left.key != right.key ? left.key < right.key : nameOf(left) < nameOf(right);
        });
        for (const Row& row : m_rows) {
            append(output.buffer(),
                   std::string_view(m_text).substr(row.at + row.nameLength, row.lineLength));
            output.pace();
        }
    }

  private:
    struct Row {
        uint64_t key; // the name's next eight bytes behind what all names begin with
        std::size_t at;
        std::size_t nameLength;
        std::size_t lineLength;
    };
    // Most comparisons end at the keys and never look for the names, which lie far apart.
    void fillKeys() {
        std::size_t common = m_rows.empty() ? 0 : m_rows.front().nameLength;
        for (const Row& row : m_rows) {
            const std::string_view name = nameOf(row).substr(0, common);
            const std::string_view first = nameOf(m_rows.front());
            common = static_cast<std::size_t>(
                std::mismatch(name.begin(), name.end(), first.begin()).first - name.begin());
        }
        for (Row& row : m_rows) {
            const std::string_view rest = nameOf(row).substr(common);
            unsigned char bytes[sizeof row.key] = {};
            std::memcpy(bytes, rest.data(), std::min(rest.size(), sizeof bytes));
            row.key = 0;
            for (const unsigned char byte : bytes) {
                row.key = row.key << 8 | byte;
            }
        }
    }

    std::string_view nameOf(const Row& row) const {
        return std::string_view(m_text).substr(row.at, row.nameLength);
    }

    std::string m_text;
    std::vector<Row> m_rows;
};

class Lister {
  public:
    Lister(Session& session, Failures& failures)
        : m_session(session), m_options(session.options), m_failures(failures) {}

    void list(FoundFile& top) {
        const bool needFiles = m_options.json || m_options.details;
        TreeWalk walk(std::move(top.file), top.path,
                      needFiles ? TreeWalk::Open::ALL : TreeWalk::Open::DIRECTORIES, m_failures);
        begin();
        for (auto step = walk.next(); step != TreeWalk::Step::END; step = walk.next()) {
            if (step == TreeWalk::Step::ENTRY) {
                add(walk);
            }
        }
        end();
    }

  private:
    bool sorted() const { return !m_options.json && !m_options.recursive && !m_options.unsorted; }

    void begin() {
        if (m_options.json) {
            m_session.output.buffer().push_back('[');
        }
    }
    void end() {
        if (m_options.json) {
            append(m_session.output.buffer(), m_first ? "]\n" : "\n]\n");
        }
        m_lines.print(m_session.output);
    }

    void add(TreeWalk& walk) {
        if (!m_options.recursive) {
            walk.skip();
        }
        if (sorted()) {
            m_line.resize(0);
            appendLine(m_line, walk);
            m_lines.add(walk.name(), {m_line.data(), m_line.size()});
            return;
        }
        if (m_options.json) {
            addJson(walk);
        } else {
            appendLine(m_session.output.buffer(), walk);
        }
        m_session.output.pace();
    }

    void addJson(TreeWalk& walk) {
        append(m_session.output.buffer(), m_first ? "\n" : ",\n");
        m_first = false;
        appendJsonEntry(m_session.output.buffer(), walk.name(), walk.path(), walk.file());
    }

    void appendLine(TextBuffer& out, TreeWalk& walk) {
        const std::string_view shown = m_options.recursive ? walk.path() : walk.name();
        if (m_options.details) {
            m_session.table.appendFile(out, shown, walk.file(), targetOf(walk), std::nullopt);
        } else {
            append(out, m_session.table.name(shown, walk.typeBits()));
            out.push_back('\n');
        }
    }

    std::optional<std::string> targetOf(TreeWalk& walk) {
        if (walk.typeBits() != S_IFLNK) {
            return std::nullopt;
        }
        try {
            return walk.file().linkTarget();
        } catch (const ToolError& error) {
            m_failures.add(walk.path(), error.what());
            return std::nullopt;
        }
    }

    Session& m_session;
    const Options& m_options;
    Failures& m_failures;
    SortedLines m_lines;
    TextBuffer m_line;
    bool m_first = true;
};

} // namespace

ExitStatus runList(Session& session) {
    FoundFile top = findFile(session.volume, session.options.path);
    if (top.file.typeBits() != S_IFDIR) {
        throw ToolError(ExitStatus::NOT_FOUND,
                        fmt::format("{}: is not a directory but a {}", printable(top.path),
                                    typeName(top.file.typeBits())));
    }
    Failures failures(session.options.volume, Failures::When::AT_ONCE);
    Lister(session, failures).list(top);
    return failures.count() == 0 ? ExitStatus::DONE : ExitStatus::FAILED;
}
