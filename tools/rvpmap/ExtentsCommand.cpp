#include "DiskRuns.h"
#include "ExtentCursor.h"
#include "Json.h"
#include "Messages.h"
#include "Path.h"
#include "PhysicalMap.h"
#include "RunFlags.h"
#include "Session.h"
#include "SourceError.h"
#include "Text.h"

#include <algorithm>

namespace {

// Only these keep the bytes on a disk from being the file's.
constexpr uint32_t TELLING_FLAGS = FSO_EXTENT_ENCODED | FSO_EXTENT_UNWRITTEN;

// Of a column of byte numbers up to the largest, below its heading.
std::size_t columnWidth(uint64_t largest) {
    return std::max<std::size_t>(fmt::formatted_size("{}", largest), 8);
}

void appendFlagNames(TextBuffer& out, uint32_t flags) {
    std::string_view separator = "  ";
    forEachFlag(flags, [&](std::string_view name) {
        append(out, separator);
        append(out, name);
        separator = ",";
    });
}

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
        m_width = columnWidth(std::max(volume.source().size(), found.file.attributes().size));
        fmt::format_to(std::back_inserter(m_output.buffer()), "{:>{}}  {:>{}}  {:>{}}  {}\n",
                       "logical", m_width, "physical", m_width, "length", m_width, "flags");
    }
    void print(const Run& run) {
        TextBuffer& out = m_output.buffer();
        fmt::format_to(std::back_inserter(out), "{:>{}}  {:>{}}  {:>{}}", run.logical, m_width,
                       run.physical, m_width, run.length, m_width);
        appendFlagNames(out, run.flags);
        out.push_back('\n');
        ++m_runs;
        m_bytes += run.length;
        m_output.pace();
    }
    void end() {
        fmt::format_to(std::back_inserter(m_output.buffer()), "{}, {}\n",
                       countText(m_runs, "extent", "extents"), humanSize(m_bytes));
    }

  private:
    Output& m_output;
    std::size_t m_width = 0;
    uint64_t m_runs = 0;
    uint64_t m_bytes = 0;
};

// The pieces of a run on the disks, in file order.
std::vector<DiskRun> physicalRuns(const Volume& volume, const Run& run) {
    try {
        std::vector<DiskRun> pieces = mapToDisks(volume.source(), run.physical, run.length);
        for (DiskRun& piece : pieces) {
            piece.logical = run.logical + (piece.logical - run.physical);
        }
        return pieces;
    } catch (const SourceError& error) {
        throw readError(error);
    }
}

class PhysicalJsonPrinter {
  public:
    explicit PhysicalJsonPrinter(Output& output) : m_output(output), m_frame(output) {}

    void begin(const FoundFile& found) {
        m_volume = &found.file.volume();
        m_frame.begin(found);
    }
    void print(const Run& run) {
        for (const DiskRun& piece : physicalRuns(*m_volume, run)) {
            fmt::format_to(std::back_inserter(m_output.buffer()), R"({}{{"logical":{},"length":{})",
                           m_first ? "" : ",", piece.logical, piece.run.length);
            printPlaces(piece.run);
            if ((run.flags & TELLING_FLAGS) != 0) {
                append(m_output.buffer(), R"(,"flags":)");
                appendJsonFlags(m_output.buffer(), run.flags & TELLING_FLAGS);
            }
            m_output.buffer().push_back('}');
            m_output.pace();
            m_first = false;
        }
    }
    void end() { m_frame.end(); }

  private:
    void printPlaces(const LayerRun& run) {
        TextBuffer& out = m_output.buffer();
        if (run.kind == RunKind::DATA) {
            out.push_back(',');
            printPlace(run.places.front());
            return;
        }
        append(out, run.kind == RunKind::XOR ? R"(,"rebuilt_from":[)" : R"(,"zeros":true)");
        for (std::size_t i = 0; i < run.places.size(); ++i) {
            append(out, i == 0 ? "{" : ",{");
            printPlace(run.places[i]);
            out.push_back('}');
        }
        append(out, run.kind == RunKind::XOR ? "]" : "");
    }
    void printPlace(const LayerPlace& place) {
        appendJsonName(m_output.buffer(), "disk", place.layer->name());
        fmt::format_to(std::back_inserter(m_output.buffer()), R"(,"offset":{})", place.offset);
    }

    Output& m_output;
    JsonPrinter m_frame;
    const Volume* m_volume = nullptr;
    bool m_first = true;
};

class PhysicalTablePrinter {
  public:
    explicit PhysicalTablePrinter(Session& session) : m_session(session) {}

    void begin(const FoundFile& found) {
        uint64_t largest = found.file.attributes().size;
        const PhysicalMap map(m_session.volume.source(), m_session.stack);
        for (const Layer* disk : map.disks()) {
            largest = std::max(largest, disk->size());
        }
        m_width = columnWidth(largest);
        fmt::format_to(std::back_inserter(m_session.output.buffer()),
                       "{:>{}}  {:>{}}  {:>{}}  disk\n", "logical", m_width, "length", m_width,
                       "offset", m_width);
    }
    void print(const Run& run) {
        for (const DiskRun& piece : physicalRuns(m_session.volume, run)) {
            TextBuffer& out = m_session.output.buffer();
            fmt::format_to(std::back_inserter(out), "{:>{}}  {:>{}}  ", piece.logical, m_width,
                           piece.run.length, m_width);
            append(out, placesText(piece.run));
            appendFlagNames(out, run.flags & TELLING_FLAGS);
            out.push_back('\n');
            ++m_pieces;
            m_session.output.pace();
        }
    }
    void end() {
        fmt::format_to(std::back_inserter(m_session.output.buffer()), "{} on disks\n",
                       countText(m_pieces, "piece", "pieces"));
    }

  private:
    std::string placesText(const LayerRun& run) const {
        if (run.kind == RunKind::ZERO) {
            return fmt::format("{:>{}}  zeros", "-", m_width);
        }
        if (run.kind == RunKind::DATA) {
            return fmt::format("{:>{}}  {}", run.places.front().offset, m_width,
                               printable(run.places.front().layer->name()));
        }
        std::string text = fmt::format("{:>{}}  rebuilt from", "-", m_width);
        for (const LayerPlace& place : run.places) {
            text += fmt::format(" {}@{}", printable(place.layer->name()), place.offset);
        }
        return text;
    }

    Session& m_session;
    std::size_t m_width = 0;
    uint64_t m_pieces = 0;
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
        failure = about(found.path, error);
    }
    printer.end();
    if (failure) {
        throw ToolError(*failure);
    }
}

} // namespace

ExitStatus runExtents(Session& session) {
    FoundFile found = findFile(session.volume, session.options.path);
    if (session.options.physical && session.options.json) {
        printExtents(PhysicalJsonPrinter(session.output), found);
    } else if (session.options.physical) {
        printExtents(PhysicalTablePrinter(session), found);
    } else if (session.options.json) {
        printExtents(JsonPrinter(session.output), found);
    } else {
        printExtents(TablePrinter(session.output), found);
    }
    return ExitStatus::DONE;
}
