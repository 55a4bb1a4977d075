#include "VolumePicture.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>

namespace {

// A volume that is cut short has fewer than it says.
uint64_t presentBlocks(const Volume& volume, uint64_t blockSize) {
    const uint64_t held = volume.source().size() / blockSize;
    return std::min(volume.statistics().blockCount, held);
}

} // namespace

VolumePicture::VolumePicture(const Volume& volume, const PhysicalMap& map,
                             std::vector<std::string> shown)
    : m_map(map), m_blockSize(std::max<uint64_t>(volume.statistics().blockSize, 1)),
      m_blocks(presentBlocks(volume, m_blockSize)), m_used(RvpBitmap::FILE_MAPPING),
      m_shownLinked(shown.size()) {
    for (std::string& path : shown) {
        m_shown.push_back({std::move(path)});
    }
    makeBitmap();
    layOutCells();
    addVolumeArea();
}

// The bitmap's failures are no standard exceptions.
void VolumePicture::makeBitmap() {
    try {
        m_used.init(m_blocks, true, 0, "rvpmap");
    } catch (const LinuxError& error) {
        throw ToolError(ExitStatus::FAILED,
                        fmt::format("no bitmap of {} blocks can be made: {}", m_blocks,
                                    std::strerror(error.m_code - KMP_ERRNO_BASE)));
    }
}

// All disks have cells of one size, a power of two, so that they compare and rows begin at round
// offsets.
void VolumePicture::layOutCells() {
    uint64_t largest = 1;
    for (const Layer* disk : disks()) {
        largest = std::max(largest, disk->size());
    }
    const std::size_t rows = std::max<std::size_t>(MOST_ROWS / disks().size(), 2);
    const uint64_t cells = COLUMNS * rows;
    m_cellBytes = std::max(std::bit_ceil((largest + cells - 1) / cells), uint64_t{512});
    for (const Layer* disk : disks()) {
        m_cells.emplace_back((disk->size() + m_cellBytes - 1) / m_cellBytes);
    }
}

void VolumePicture::addVolumeArea() {
    forEachCell(0, m_blocks * m_blockSize,
                [](PictureCell& cell, uint64_t length) { cell.volume += length; });
}

void VolumePicture::add(const std::string& path, File& file) {
    const bool directory = file.typeBits() == S_IFDIR;
    int shown = shownIndex(path);
    if (shown >= 0 && file.hasSeveralPaths() &&
        !m_shownLinked[static_cast<std::size_t>(shown)].insert(file.index())) {
        shown = -1;
    }
    const bool anew = !file.hasSeveralPaths() || m_linked.insert(file.index());
    if (!anew && shown < 0) {
        return;
    }
    Measure measure;
    ExtentCursor cursor(file);
    while (const Run* run = cursor.next()) {
        if (!run->isHole() && !run->isInline()) {
            addRun(*run, directory, shown, measure);
        }
    }
    account(file, shown, measure, anew);
}

// The most particular of the paths that hold `path`.
int VolumePicture::shownIndex(const std::string& path) const {
    int best = -1;
    std::size_t bestLength = 0;
    for (std::size_t i = 0; i < m_shown.size(); ++i) {
        const std::string& top = m_shown[i].path;
        const bool within = top == "/" || (path.starts_with(top) &&
                                           (path.size() == top.size() || path[top.size()] == '/'));
        if (within && top.size() > bestLength) {
            best = static_cast<int>(i);
            bestLength = top.size();
        }
    }
    return best;
}

void VolumePicture::addRun(const Run& run, bool directory, int shown, Measure& measure) {
    const uint64_t bytes = m_blocks * m_blockSize;
    if (run.physical >= bytes) {
        return;
    }
    const uint64_t length = std::min(run.length, bytes - run.physical);
    measure.bytes += length;
    measure.fragments += run.physical != measure.end ? 1 : 0;
    measure.end = run.physical + length;
    fillFree(run.physical, length, directory);
    if (shown >= 0) {
        colour(run.physical, length, shown);
    }
}

// Each block counts once, however many files or paths hold it.
void VolumePicture::fillFree(uint64_t offset, uint64_t length, bool directory) {
    unsigned long block = offset / m_blockSize;
    const unsigned long end = (offset + length + m_blockSize - 1) / m_blockSize;
    while (block < end) {
        bool set = false;
        const unsigned long count = m_used.getExtent(block, end - block, set);
        if (!set) {
            m_used.setRegion(block, count);
            forEachCell(block * m_blockSize, count * m_blockSize,
                        [directory](PictureCell& cell, uint64_t bytes) {
                            cell.used += bytes;
                            cell.directories += directory ? bytes : 0;
                        });
        }
        block += count;
    }
}

// Where several shown files meet in a cell, the smaller piece is shown: it would never be seen
// otherwise.
void VolumePicture::colour(uint64_t offset, uint64_t length, int shown) {
    forEachCell(offset, length, [shown](PictureCell& cell, uint64_t bytes) {
        if (cell.shownFile == shown) {
            cell.shownBytes += bytes;
        } else if (cell.shownFile < 0 || bytes < cell.shownBytes) {
            cell.shownFile = shown;
            cell.shownBytes = bytes;
        }
    });
}

template <typename Action>
void VolumePicture::forEachCell(uint64_t offset, uint64_t length, Action action) {
    m_map.forEachRun(offset, length, [&](const PhysicalRun& run) {
        if (run.rebuilt) {
            return;
        }
        std::vector<PictureCell>& cells = m_cells[run.disk];
        const uint64_t end = std::min(run.offset + run.length, cells.size() * m_cellBytes);
        for (uint64_t at = run.offset; at < end;) {
            const uint64_t next = std::min(end, (at / m_cellBytes + 1) * m_cellBytes);
            action(cells[at / m_cellBytes], next - at);
            at = next;
        }
    });
}

void VolumePicture::account(const File& file, int shown, const Measure& measure, bool anew) {
    const bool directory = file.typeBits() == S_IFDIR;
    if (shown >= 0) {
        ShownFile& entry = m_shown[static_cast<std::size_t>(shown)];
        entry.files += directory ? 0 : 1;
        entry.bytes += measure.bytes;
        entry.fragments += measure.fragments;
    }
    if (!anew) {
        return;
    }
    if (directory) {
        ++m_totals.directories;
        m_totals.directoryBytes += measure.bytes;
        return;
    }
    ++m_totals.files;
    m_totals.fileBytes += measure.bytes;
    m_totals.mappedFiles += measure.fragments != 0 ? 1 : 0;
    m_totals.fragments += measure.fragments;
    m_totals.fragmentedFiles += measure.fragments > 1 ? 1 : 0;
}

void VolumePicture::finish() {
    for (unsigned long block = 0; block < m_blocks;) {
        bool set = false;
        const unsigned long count = m_used.getExtent(block, m_blocks - block, set);
        if (!set) {
            ++m_totals.gaps;
            m_totals.largestGap = std::max(m_totals.largestGap, count * m_blockSize);
        }
        block += count;
    }
}
