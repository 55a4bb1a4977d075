#include "ExtentCursor.h"
#include "Json.h"
#include "Path.h"
#include "RunFlags.h"
#include "Session.h"
#include "Text.h"

#include <algorithm>

namespace {

class JsonPrinter {
  public:
    explicit JsonPrinter(Output& output) : m_output(output) {}

    void begin(const FoundFile& found) {
        TextBuffer& out = m_output.buffer();
        out.push_back('{');
        appendJsonName(out, "path", found.path);
        fmt::format_to(std::back_inserter(out), ",\"index\":{},\"size\":{},\"extents\":[",
                       found.file.index(), found.file.attributes().size);
    }
    void print(const Run& run) {
        appendJsonExtent(m_output.buffer(), run, m_first);
        m_first = false;
        m_output.pace();
    }
    void end() { append(m_output.buffer(), "]}\n"); }

  private:
    Output& m_output;
    bool m_first = true;
};

class TablePrinter {
  public:
    explicit TablePrinter(Output& output) : m_output(output) {}

    void begin(const FoundFile& found) {
        const Volume& volume = found.file.volume();
        const uint64_t largest = std::max(volume.source().size(), found.file.attributes().size);
        m_width = std::max<std::size_t>(fmt::formatted_size("{}", largest), 8);
        fmt::format_to(std::back_inserter(m_output.buffer()), "{:>{}}  {:>{}}  {:>{}}  {}\n",
                       "logical", m_width, "physical", m_width, "length", m_width, "flags");
    }
    void print(const Run& run) {
        TextBuffer& out = m_output.buffer();
        fmt::format_to(std::back_inserter(out), "{:>{}}  {:>{}}  {:>{}}", run.logical, m_width,
                       run.physical, m_width, run.length, m_width);
        std::string_view separator = "  ";
        forEachFlag(run.flags, [&](std::string_view name) {
            append(out, separator);
            append(out, name);
            separator = ",";
        });
        out.push_back('\n');
        ++m_runs;
        m_bytes += run.length;
        m_output.pace();
    }
    void end() {
        fmt::format_to(std::back_inserter(m_output.buffer()), "{} extent{}, {}\n", m_runs,
                       m_runs == 1 ? "" : "s", humanSize(m_bytes));
    }

  private:
    Output& m_output;
    std::size_t m_width = 0;
    uint64_t m_runs = 0;
    uint64_t m_bytes = 0;
};

// A file that cannot be mapped to its end still shows the runs before that.
template <typename Printer>
void printExtents(Printer printer, FoundFile& found) {
    printer.begin(found);
    std::optional<ToolError> failure;
    try {
        ExtentCursor cursor(found.file);
        while (const Run* run = cursor.next()) {
            if (!run->isHole()) {
                printer.print(*run);
            }
        }
    } catch (const ToolError& error) {
        failure =
            ToolError(error.status(), fmt::format("{}: {}", printable(found.path), error.what()));
    }
    printer.end();
    if (failure) {
        throw ToolError(*failure);
    }
}

} // namespace

ExitStatus runExtents(Session& session) {
    FoundFile found = findFile(session.volume, session.options.path);
    if (session.options.json) {
        printExtents(JsonPrinter(session.output), found);
    } else {
        printExtents(TablePrinter(session.output), found);
    }
    return ExitStatus::DONE;
}
