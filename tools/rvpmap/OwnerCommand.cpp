#include "DdrescueMap.h"
#include "FileVisit.h"
#include "Json.h"
#include "OwnerFinder.h"
#include "RunFlags.h"
#include "Session.h"
#include "Text.h"

#include "fso/IFileSystemObjectV1.h"

#include <algorithm>

namespace {

// What holds bytes that no file does.
struct OtherOwner {
    std::string_view name;
    std::string_view words;
};

// The provider tells how many blocks are free, not which.
constexpr OtherOwner FREE_OR_METADATA = {"free-or-metadata",
                                         "in no file: free or file-system metadata"};
constexpr OtherOwner OUTSIDE = {"outside", "behind the end of the file system"};

class OwnerPrinter {
  public:
    virtual ~OwnerPrinter() = default;
    virtual void begin() {}
    virtual void print(const OwnedPiece& piece, const OwningFile& file) = 0;
    virtual void print(const ByteRange& range, const OtherOwner& owner) = 0;
    virtual void end(std::size_t files) = 0;
};

class JsonPrinter : public OwnerPrinter {
  public:
    explicit JsonPrinter(Output& output) : m_output(output) {}

    void begin() override { m_output.buffer().push_back('['); }
    void print(const OwnedPiece& piece, const OwningFile& file) override {
        TextBuffer& out = beginObject(piece.range, typeName(file.typeBits));
        out.push_back(',');
        appendJsonName(out, "path", file.path);
        fmt::format_to(std::back_inserter(out),
                       ",\"index\":{},\"size\":{},\"file_offset\":{},\"flags\":[", file.index,
                       file.size, piece.fileOffset);
        std::string_view separator = "\"";
        forEachFlag(piece.flags & ~FSO_EXTENT_LAST, [&](std::string_view name) {
            append(out, separator);
            append(out, name);
            out.push_back('"');
            separator = ",\"";
        });
        append(out, "]}");
        m_output.pace();
    }
    void print(const ByteRange& range, const OtherOwner& owner) override {
        beginObject(range, owner.name).push_back('}');
        m_output.pace();
    }
    void end(std::size_t /*files*/) override { append(m_output.buffer(), "]\n"); }

  private:
    TextBuffer& beginObject(const ByteRange& range, std::string_view owner) {
        TextBuffer& out = m_output.buffer();
        fmt::format_to(std::back_inserter(out), "{}{{\"offset\":{},\"length\":{},\"owner\":\"{}\"",
                       m_first ? "" : ",\n", range.begin, range.end - range.begin, owner);
        m_first = false;
        return out;
    }

    Output& m_output;
    bool m_first = true;
};

class TablePrinter : public OwnerPrinter {
  public:
    TablePrinter(Output& output, const Table& table) : m_output(output), m_table(table) {}

    void begin() override { row("offset", "length", "file offset", "owner"); }
    void print(const OwnedPiece& piece, const OwningFile& file) override {
        std::string owner = m_table.name(file.path, file.typeBits);
        std::string_view separator = "  (";
        forEachFlag(piece.flags & ~FSO_EXTENT_LAST, [&](std::string_view name) {
            owner.append(separator).append(name);
            separator = ", ";
        });
        if (separator == ", ") {
            owner += ')';
        }
        numbers(piece.range, fmt::format("{}", piece.fileOffset), owner);
        m_inFiles += piece.range.end - piece.range.begin;
    }
    void print(const ByteRange& range, const OtherOwner& owner) override {
        numbers(range, "-", fmt::format("({})", owner.words));
        m_elsewhere += range.end - range.begin;
    }
    void end(std::size_t files) override {
        fmt::format_to(std::back_inserter(m_output.buffer()), "{}B in {} file{}, {}B in no file\n",
                       humanSize(m_inFiles), files, files == 1 ? "" : "s", humanSize(m_elsewhere));
    }

  private:
    void numbers(const ByteRange& range, const std::string& fileOffset, const std::string& owner) {
        row(fmt::format("{}", range.begin), fmt::format("{}", range.end - range.begin), fileOffset,
            owner);
        m_output.pace();
    }
    void row(const std::string& offset, const std::string& length, const std::string& fileOffset,
             const std::string& owner) {
        fmt::format_to(std::back_inserter(m_output.buffer()), "{:>16}  {:>12}  {:>16}  {}\n",
                       offset, length, fileOffset, owner);
    }

    Output& m_output;
    const Table& m_table;
    uint64_t m_inFiles = 0;
    uint64_t m_elsewhere = 0;
};

std::vector<ByteRange> askedRanges(const Options& options) {
    std::vector<ByteRange> ranges;
    for (const std::string& text : options.ranges) {
        ranges.push_back(parseRange(text));
    }
    if (!options.ddrescue.empty()) {
        const std::vector<ByteRange> bad = readBadAreas(options.ddrescue);
        ranges.insert(ranges.end(), bad.begin(), bad.end());
    }
    return ranges;
}

void printUnowned(OwnerPrinter& printer, const ByteRange& gap, uint64_t fileSystemBytes) {
    const uint64_t border = std::clamp(fileSystemBytes, gap.begin, gap.end);
    if (gap.begin < border) {
        printer.print({gap.begin, border}, FREE_OR_METADATA);
    }
    if (border < gap.end) {
        printer.print({border, gap.end}, OUTSIDE);
    }
}

void printRange(OwnerPrinter& printer, const OwnerFinder& finder, const ByteRange& range,
                uint64_t fileSystemBytes) {
    uint64_t told = range.begin;
    finder.forEachPiece(range, [&](const OwnedPiece& piece) {
        if (told < piece.range.begin) {
            printUnowned(printer, {told, piece.range.begin}, fileSystemBytes);
        }
        printer.print(piece, finder.files()[piece.file]);
        told = std::max(told, piece.range.end);
    });
    if (told < range.end) {
        printUnowned(printer, {told, range.end}, fileSystemBytes);
    }
}

void printAll(OwnerPrinter& printer, const OwnerFinder& finder,
              const std::vector<ByteRange>& ranges, uint64_t fileSystemBytes) {
    printer.begin();
    for (const ByteRange& range : ranges) {
        printRange(printer, finder, range, fileSystemBytes);
    }
    printer.end(finder.files().size());
}

} // namespace

ExitStatus runOwner(Session& session) {
    const std::vector<ByteRange> ranges = askedRanges(session.options);
    const auto map = makePhysicalMap(session);
    OwnerFinder finder(ranges, *map, std::nullopt);
    Failures failures(session.options.volume, Failures::When::AT_ONCE);
    visitEveryFile(session.volume, "owner", failures,
                   [&](const std::string& path, File& file) { finder.add(path, file); });
    finder.finish();
    const uint64_t fileSystemBytes = session.volume.fileSystemBytes();
    if (session.options.json) {
        JsonPrinter printer(session.output);
        printAll(printer, finder, ranges, fileSystemBytes);
    } else {
        TablePrinter printer(session.output, session.table);
        printAll(printer, finder, ranges, fileSystemBytes);
    }
    return failures.count() == 0 ? ExitStatus::DONE : ExitStatus::FAILED;
}
