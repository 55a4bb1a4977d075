#include "SvgPicture.h"

#include "Text.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

// ---- Measures, in pixels
// -------------------------------------------------------------------------

constexpr unsigned WIDTH = 1200;
constexpr unsigned MARGIN = 40;
constexpr unsigned GRID_LEFT = 104;
constexpr unsigned CELL_WIDTH = 4;
constexpr unsigned GRID_WIDTH = CELL_WIDTH * VolumePicture::COLUMNS;
constexpr unsigned ROW_PITCH = 9;
constexpr unsigned ROW_HEIGHT = 8;
constexpr unsigned LABEL_ROWS = 8; // rows from one offset label to the next
constexpr unsigned LEGEND_PITCH = 24;
static_assert(GRID_LEFT + GRID_WIDTH + MARGIN <= WIDTH);

// ---- Colours
// -------------------------------------------------------------------------------------

constexpr const char* STYLE =
    "text{font-family:system-ui,'DejaVu Sans',Verdana,sans-serif;font-size:13px;fill:#2b3440}"
    ".title{font-size:22px;font-weight:600}.quiet{fill:#66717f}.offset{font-size:11px;fill:#66717f;"
    "text-anchor:end}.number{text-anchor:end}";
constexpr const char* BACKGROUND = "#fafaf8";
constexpr const char* ELSEWHERE = "#efe9d8"; // of the disk, but not of the volume
constexpr const char* EMPTY = "#e2e5e9";     // in no file
constexpr const char* METADATA = "#b3a68a";
constexpr const char* DIRECTORY = "#8a6bb8";
// By how much of a cell files hold, up to a quarter, a half, three quarters, all.
constexpr std::array<const char*, 4> USED = {"#c3ccd6", "#a3b0be", "#8494a6", "#66788c"};
// Told apart by people with colour-blindness too, and none of them a shade of the volume.
constexpr std::array<const char*, 10> SHOWN = {"#e8590c", "#0b7fd1", "#12954a", "#d6336c",
                                               "#e0a800", "#0c9aa8", "#7b2fbf", "#8a4b08",
                                               "#7cb518", "#1b2a9b"};

std::string shownColour(std::size_t index) {
    if (index < SHOWN.size()) {
        return SHOWN[index];
    }
    constexpr double GOLDEN_ANGLE = 137.508;
    return fmt::format("hsl({:.0f},75%,42%)",
                       std::fmod(static_cast<double>(index) * GOLDEN_ANGLE, 360.0));
}

// ---- Text
// ----------------------------------------------------------------------------------------

// Escaped for people first: no control character may stand in XML.
std::string xmlText(std::string_view bytes) {
    std::string result;
    for (const char c : printable(bytes)) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

std::string bytesText(uint64_t bytes) {
    std::string text = humanSize(bytes);
    const char unit = text.back();
    if (unit >= '0' && unit <= '9') {
        return text + " B";
    }
    text.pop_back();
    return fmt::format("{} {}iB", text, unit);
}

// For sizes and offsets that are round numbers nearly always.
std::string roundText(uint64_t offset) {
    std::string text = bytesText(offset);
    const std::size_t zero = text.find(".0 ");
    return offset == 0 ? "0" : zero == std::string::npos ? text : text.erase(zero, 2);
}

std::string shareText(uint64_t part, uint64_t whole) {
    const double share =
        whole == 0 ? 0 : 100 * static_cast<double>(part) / static_cast<double>(whole);
    return share > 0 && share < 0.1 ? "&lt;0.1 %" : fmt::format("{:.1f} %", share);
}

// Long paths lose their middle, between whole characters.
std::string shortened(const std::string& path) {
    constexpr std::size_t MOST = 64;
    constexpr std::size_t TAIL = 40;
    const auto inCharacter = [&](std::size_t at) {
        return (static_cast<unsigned char>(path[at]) & 0xC0U) == 0x80;
    };
    if (path.size() <= MOST) {
        return path;
    }
    std::size_t head = MOST - TAIL - 1;
    std::size_t tail = path.size() - TAIL;
    while (head > 0 && inCharacter(head)) {
        --head;
    }
    while (tail < path.size() && inCharacter(tail)) {
        ++tail;
    }
    return path.substr(0, head) + "\u2026" + path.substr(tail);
}

// ---- The drawing
// ---------------------------------------------------------------------------------

class Drawing {
  public:
    Drawing(const VolumePicture& picture, const PictureHeading& heading)
        : m_picture(picture), m_heading(heading) {}

    // The height is known when all is drawn.
    void draw(TextBuffer& out) {
        drawHeading();
        drawShares();
        for (std::size_t disk = 0; disk < m_picture.disks().size(); ++disk) {
            drawDisk(disk);
        }
        drawLegend();
        begin(out);
        append(out, {m_out.data(), m_out.size()});
        append(out, "</svg>\n");
    }

  private:
    template <typename... Arguments>
    void put(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
        fmt::format_to(std::back_inserter(m_out), format, std::forward<Arguments>(arguments)...);
    }

    void begin(TextBuffer& out) const {
        fmt::format_to(std::back_inserter(out),
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
                       "viewBox=\"0 0 {0} {1}\">\n<title>{2}</title>\n<style>{3}</style>\n"
                       "<rect width=\"{0}\" height=\"{1}\" fill=\"{4}\"/>\n",
                       WIDTH, m_y + MARGIN - 12, xmlText(m_heading.title), STYLE, BACKGROUND);
    }

    void text(unsigned x, unsigned y, std::string_view kind, std::string_view escaped) {
        put("<text x=\"{}\" y=\"{}\" class=\"{}\">{}</text>\n", x, y, kind, escaped);
    }
    void box(double x, unsigned y, double width, unsigned height, std::string_view colour) {
        put("<rect x=\"{:.2f}\" y=\"{}\" width=\"{:.2f}\" height=\"{}\" fill=\"{}\"/>\n", x, y,
            width, height, colour);
    }

    void drawHeading() {
        const PictureTotals& totals = m_picture.totals();
        text(MARGIN, 48, "title", xmlText(shortened(m_heading.title)));
        text(MARGIN, 72, "quiet",
             fmt::format("{} \u00b7 {} in blocks of {} \u00b7 {}", xmlText(m_heading.fileSystem),
                         roundText(m_heading.volumeBytes), roundText(m_heading.blockSize),
                         m_heading.uuid));
        const double mean = totals.mappedFiles == 0 ? 0
                                                    : static_cast<double>(totals.fragments) /
                                                          static_cast<double>(totals.mappedFiles);
        text(MARGIN, 98, "plain",
             fmt::format("{} in {} \u00b7 {:.2f} fragments a file, {} in more than one \u00b7 {}, "
                         "the largest {}",
                         countText(totals.files, "file", "files"),
                         countText(totals.directories, "directory", "directories"), mean,
                         totals.fragmentedFiles,
                         countText(totals.gaps, "gap between files", "gaps between files"),
                         bytesText(totals.largestGap)));
        m_y = 116;
    }

    // One bar of the whole: what is known by count, wherever it lies.
    void drawShares() {
        const PictureTotals& totals = m_picture.totals();
        const uint64_t whole = std::max<uint64_t>(m_heading.volumeBytes, 1);
        const uint64_t free = std::min(m_heading.freeBytes, whole);
        const uint64_t files = std::min(totals.fileBytes, whole - free);
        const uint64_t directories = std::min(totals.directoryBytes, whole - free - files);
        const uint64_t metadata = whole - free - files - directories;
        struct Share {
            const char* name;
            uint64_t bytes;
            const char* colour;
        };
        double x = MARGIN;
        unsigned labelX = MARGIN;
        for (const Share& share :
             {Share{"files", files, USED.back()}, Share{"directories", directories, DIRECTORY},
              Share{"other metadata", metadata, METADATA}, Share{"free", free, EMPTY}}) {
            const double width = static_cast<double>(share.bytes) / static_cast<double>(whole) *
                                 (WIDTH - 2 * MARGIN);
            box(x, m_y, width, 14, share.colour);
            x += width;
            box(labelX, m_y + 24, 11, 11, share.colour);
            text(labelX + 18, m_y + 34, "plain",
                 fmt::format("{} {} ({})", share.name, bytesText(share.bytes),
                             shareText(share.bytes, whole)));
            labelX += 270;
        }
        m_y += 60;
    }

    void drawDisk(std::size_t disk) {
        const Layer& shown = *m_picture.disks()[disk];
        if (!holdsVolume(m_picture.cells(disk))) {
            return;
        }
        if (m_picture.disks().size() > 1) {
            text(GRID_LEFT, m_y + 6, "plain",
                 fmt::format("{} \u00b7 {}", xmlText(shortened(shown.name())),
                             bytesText(shown.size())));
            m_y += 16;
        }
        const std::vector<PictureCell>& cells = m_picture.cells(disk);
        const std::size_t rows =
            (cells.size() + VolumePicture::COLUMNS - 1) / VolumePicture::COLUMNS;
        drawOffsets(rows);
        drawBase(cells);
        drawShown(cells);
        m_y += static_cast<unsigned>(rows) * ROW_PITCH + 28;
    }

    static bool holdsVolume(const std::vector<PictureCell>& cells) {
        return std::any_of(cells.begin(), cells.end(),
                           [](const PictureCell& cell) { return cell.volume != 0; });
    }

    void drawOffsets(std::size_t rows) {
        for (std::size_t row = 0; row < rows; row += LABEL_ROWS) {
            text(GRID_LEFT - 10, rowTop(row) + ROW_HEIGHT, "offset",
                 roundText(row * VolumePicture::COLUMNS * m_picture.cellBytes()));
        }
    }

    unsigned rowTop(std::size_t row) const { return m_y + static_cast<unsigned>(row) * ROW_PITCH; }

    // Equal neighbours become one shape, and all shapes of a colour one path.
    void drawBase(const std::vector<PictureCell>& cells) {
        for (const char* colour :
             {ELSEWHERE, EMPTY, USED[0], USED[1], USED[2], USED[3], DIRECTORY}) {
            TextBuffer path;
            forEachStretch(
                cells, [&](const PictureCell& cell) { return baseColour(cell) == colour; },
                [&](std::size_t first, std::size_t count) { appendShape(path, first, count); });
            putPath(path, colour, "");
        }
    }

    const char* baseColour(const PictureCell& cell) const {
        if (cell.volume == 0) {
            return ELSEWHERE;
        }
        if (cell.used == 0) {
            return EMPTY;
        }
        if (cell.directories * 2 > cell.used) {
            return DIRECTORY;
        }
        const uint64_t quarter = (4 * std::min(cell.used, cell.volume) - 1) / cell.volume;
        return USED[std::min<uint64_t>(quarter, 3)];
    }

    void drawShown(const std::vector<PictureCell>& cells) {
        for (std::size_t shown = 0; shown < m_picture.shown().size(); ++shown) {
            TextBuffer path;
            forEachStretch(
                cells,
                [&](const PictureCell& cell) { return cell.shownFile == static_cast<int>(shown); },
                [&](std::size_t first, std::size_t count) { appendShape(path, first, count); });
            putPath(path, shownColour(shown), xmlText(shortened(m_picture.shown()[shown].path)));
        }
    }

    // Calls `action(first, count)` for stretches of chosen cells, none over the end of a row.
    template <typename Choose, typename Action>
    static void forEachStretch(const std::vector<PictureCell>& cells, Choose choose,
                               Action action) {
        for (std::size_t at = 0; at < cells.size();) {
            const std::size_t rowEnd =
                std::min((at / VolumePicture::COLUMNS + 1) * VolumePicture::COLUMNS, cells.size());
            const std::size_t first = at;
            while (at < rowEnd && choose(cells[at])) {
                ++at;
            }
            if (at > first) {
                action(first, at - first);
            } else {
                ++at;
            }
        }
    }

    void appendShape(TextBuffer& path, std::size_t cell, std::size_t count) const {
        const std::size_t width = count * CELL_WIDTH;
        fmt::format_to(std::back_inserter(path), "M{} {}h{}v{}h-{}z",
                       GRID_LEFT + cell % VolumePicture::COLUMNS * CELL_WIDTH,
                       rowTop(cell / VolumePicture::COLUMNS), width, ROW_HEIGHT, width);
    }

    void putPath(const TextBuffer& path, std::string_view colour, const std::string& title) {
        if (path.size() == 0) {
            return;
        }
        put("<path fill=\"{}\" d=\"", colour);
        append(m_out, {path.data(), path.size()});
        append(m_out, "\">");
        if (!title.empty()) {
            put("<title>{}</title>", title);
        }
        append(m_out, "</path>\n");
    }

    void drawLegend() {
        drawScale();
        for (std::size_t i = 0; i < m_picture.shown().size(); ++i) {
            const ShownFile& shown = m_picture.shown()[i];
            box(GRID_LEFT, m_y, 22, 12, shownColour(i));
            text(GRID_LEFT + 32, m_y + 11, "plain", xmlText(shortened(shown.path)));
            text(GRID_LEFT + GRID_WIDTH - 280, m_y + 11, "number",
                 shown.files == 1 ? "" : fmt::format("{} files", shown.files));
            text(GRID_LEFT + GRID_WIDTH - 140, m_y + 11, "number", bytesText(shown.bytes));
            text(GRID_LEFT + GRID_WIDTH, m_y + 11, "number",
                 countText(shown.fragments, "fragment", "fragments"));
            m_y += LEGEND_PITCH;
        }
    }

    void drawScale() {
        unsigned x = GRID_LEFT;
        const auto entry = [&](std::string_view colour, const char* name, unsigned width) {
            box(x, m_y, 16, 12, colour);
            text(x + 22, m_y + 11, "quiet", name);
            x += width;
        };
        entry(EMPTY, "in no file (free or metadata)", 222);
        for (const char* colour : {USED[0], USED[1], USED[2]}) {
            box(x, m_y, 16, 12, colour);
            x += 16;
        }
        entry(USED[3], "files, by share", 142);
        entry(DIRECTORY, "directories", 110);
        if (m_picture.disks().size() > 1) {
            entry(ELSEWHERE, "not this volume's data", 186);
        }
        text(GRID_LEFT + GRID_WIDTH, m_y + 11, "number quiet",
             fmt::format("a row is {}, a cell {}",
                         roundText(VolumePicture::COLUMNS * m_picture.cellBytes()),
                         roundText(m_picture.cellBytes())));
        m_y += LEGEND_PITCH + 8;
    }

    TextBuffer m_out;
    const VolumePicture& m_picture;
    const PictureHeading& m_heading;
    unsigned m_y = 0;
};

} // namespace

void appendSvg(TextBuffer& out, const VolumePicture& picture, const PictureHeading& heading) {
    Drawing(picture, heading).draw(out);
}
