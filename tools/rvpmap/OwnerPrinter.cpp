#include "OwnerPrinter.h"

#include "Json.h"
#include "RunFlags.h"
#include "Text.h"

#include "fso/IFileSystemObjectV1.h"

#include <algorithm>
#include <memory>

namespace {

// What holds bytes that no file does.
struct OtherOwner {
    std::string name;
    std::string words;
};

OtherOwner ownerOf(const OwnedArea& area, const AreaHolder& holder) {
    switch (area.kind) {
    case AreaKind::FILE_SYSTEM:
        // The provider tells how many blocks are free, not which.
        return {"free-or-metadata", "in no file: free or file-system metadata"};
    case AreaKind::UNREAD:
        return {"unread-volume", "on a volume that is not claimed"};
    case AreaKind::BEHIND:
        return {"outside", "behind the end of the file system"};
    case AreaKind::PARITY:
        return {"parity", "array parity"};
    case AreaKind::HIDDEN:
        return {"no-volume", "in no volume that can be read"};
    case AreaKind::REST:
        break;
    }
    std::string name = holder.rest;
    std::replace(name.begin(), name.end(), ' ', '-');
    return {name, holder.rest + " or unused"};
}

class OwnerPrinter {
  public:
    virtual ~OwnerPrinter() = default;
    virtual void begin() {}
    virtual void print(const OwnedPiece& piece, const OwningFile& file) = 0;
    virtual void print(const ByteRange& range, const OtherOwner& owner,
                       const std::string& volume) = 0;
    virtual void end(std::size_t files) = 0;
};

class JsonPrinter : public OwnerPrinter {
  public:
    explicit JsonPrinter(Output& output) : m_output(output) {}

    void begin() override { m_output.buffer().push_back('['); }
    void print(const OwnedPiece& piece, const OwningFile& file) override {
        TextBuffer& out = beginObject(piece.range, typeName(file.typeBits));
        appendVolume(out, file.volume);
        if (!file.volume.empty()) {
            fmt::format_to(std::back_inserter(out),
                           ",\"volume_offset\":{},\"copy\":{},\"rebuilt\":{}", piece.volumeOffset,
                           piece.use == UseKind::COPY, piece.use == UseKind::REBUILDS);
        }
        out.push_back(',');
        appendJsonName(out, "path", file.path);
        fmt::format_to(std::back_inserter(out),
                       ",\"index\":{},\"size\":{},\"file_offset\":{},\"flags\":", file.index,
                       file.size, piece.fileOffset);
        appendJsonFlags(out, piece.flags & ~FSO_EXTENT_LAST);
        out.push_back('}');
        m_output.pace();
    }
    void print(const ByteRange& range, const OtherOwner& owner,
               const std::string& volume) override {
        TextBuffer& out = beginObject(range, owner.name);
        appendVolume(out, volume);
        out.push_back('}');
        m_output.pace();
    }
    void end(std::size_t /*files*/) override { append(m_output.buffer(), "]\n"); }

  private:
    static void appendVolume(TextBuffer& out, const std::string& volume) {
        if (!volume.empty()) {
            out.push_back(',');
            appendJsonName(out, "volume", volume);
        }
    }
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
        std::string owner = volumePrefix(file.volume) + m_table.name(file.path, file.typeBits);
        if (piece.use != UseKind::DATA) {
            owner += piece.use == UseKind::COPY ? "  (copy)" : "  (rebuilt from here)";
        }
        forEachFlag(piece.flags & ~FSO_EXTENT_LAST,
                    [&](std::string_view name) { owner += fmt::format("  ({})", name); });
        numbers(piece.range, fmt::format("{}", piece.fileOffset), owner);
        m_inFiles += piece.range.end - piece.range.begin;
    }
    void print(const ByteRange& range, const OtherOwner& owner,
               const std::string& volume) override {
        numbers(range, "-", fmt::format("{}({})", volumePrefix(volume), owner.words));
        m_elsewhere += range.end - range.begin;
    }
    void end(std::size_t files) override {
        fmt::format_to(std::back_inserter(m_output.buffer()), "{}B in {}, {}B in no file\n",
                       humanSize(m_inFiles), countText(files, "file", "files"),
                       humanSize(m_elsewhere));
    }

  private:
    static std::string volumePrefix(const std::string& volume) {
        return volume.empty() ? "" : printable(volume) + "  ";
    }
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

// Walks along a range and hands what pieces leave out to `gap`.
class GapFinder {
  public:
    explicit GapFinder(const ByteRange& range) : m_told(range.begin), m_end(range.end) {}

    template <typename Gap>
    void passTo(uint64_t begin, uint64_t end, Gap gap) {
        if (m_told < begin) {
            gap(ByteRange{m_told, begin});
        }
        m_told = std::max(m_told, end);
    }
    template <typename Gap>
    void finish(Gap gap) {
        passTo(m_end, m_end, gap);
    }

  private:
    uint64_t m_told;
    uint64_t m_end;
};

class OwnerReport {
  public:
    OwnerReport(OwnerPrinter& printer, const OwnerFinder& finder)
        : m_printer(printer), m_finder(finder) {}

    void print(const ByteRange& range) {
        GapFinder gaps(range);
        const auto unowned = [&](const ByteRange& gap) { printUnowned(0, gap); };
        m_finder.forEachPiece(range, [&](const OwnedPiece& piece) {
            gaps.passTo(piece.range.begin, piece.range.end, unowned);
            m_printer.print(piece, m_finder.files()[piece.file]);
        });
        gaps.finish(unowned);
    }

  private:
    void printUnowned(std::size_t rank, const ByteRange& range) {
        if (rank == m_finder.ranks()) {
            m_printer.print(range, {"outside", "behind the end"}, "");
            return;
        }
        GapFinder gaps(range);
        const auto next = [&](const ByteRange& gap) { printUnowned(rank + 1, gap); };
        m_finder.forEachArea(rank, range, [&](const OwnedArea& area) {
            gaps.passTo(area.range.begin, area.range.end, next);
            const AreaHolder& holder = m_finder.holders()[area.holder];
            m_printer.print(area.range, ownerOf(area, holder), holder.name);
        });
        gaps.finish(next);
    }

    OwnerPrinter& m_printer;
    const OwnerFinder& m_finder;
};

} // namespace

void printOwners(Output& output, const Table& table, bool json, const OwnerFinder& finder,
                 const std::vector<ByteRange>& ranges) {
    std::unique_ptr<OwnerPrinter> printer;
    if (json) {
        printer = std::make_unique<JsonPrinter>(output);
    } else {
        printer = std::make_unique<TablePrinter>(output, table);
    }
    printer->begin();
    OwnerReport report(*printer, finder);
    for (const ByteRange& range : ranges) {
        report.print(range);
    }
    printer->end(finder.files().size());
}
