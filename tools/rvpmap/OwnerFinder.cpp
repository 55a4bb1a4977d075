#include "OwnerFinder.h"

#include <algorithm>

OwnerFinder::OwnerFinder(const std::vector<ByteRange>& ranges, const PhysicalMap& map,
                         std::optional<std::size_t> disk)
    : m_ranges(ranges), m_map(map), m_disk(disk) {}

void OwnerFinder::add(const std::string& path, File& file) {
    m_path = &path;
    m_file = &file;
    m_fileKept = false;
    ExtentCursor cursor(file);
    while (const Run* run = cursor.next()) {
        if (!run->isHole()) {
            addRun(*run);
        }
    }
}

void OwnerFinder::addRun(const Run& run) {
    if (!m_disk) {
        const uint64_t end = run.physical + std::min(run.length, UINT64_MAX - run.physical);
        m_ranges.forEachCommon(run.physical, end, [&](const ByteRange& common) {
            addPiece(run, common, common.begin, false);
        });
        return;
    }
    m_runs.clear();
    m_map.append(run.physical, run.length, m_runs);
    for (const PhysicalRun& piece : m_runs) {
        if (piece.disk == *m_disk) {
            m_ranges.forEachCommon(
                piece.offset, piece.offset + piece.length, [&](const ByteRange& common) {
                    addPiece(run, common, piece.logical + (common.begin - piece.offset),
                             piece.rebuilt);
                });
        }
    }
}

void OwnerFinder::addPiece(const Run& run, const ByteRange& common, uint64_t volumeOffset,
                           bool rebuilt) {
    if (!m_fileKept) {
        m_files.push_back(
            {*m_path, m_file->index(), m_file->typeBits(), m_file->attributes().size});
        m_fileKept = true;
    }
    m_pieces.push_back({common, m_files.size() - 1, run.logical + (volumeOffset - run.physical),
                        volumeOffset, run.flags, rebuilt});
}

void OwnerFinder::finish() {
    std::stable_sort(m_pieces.begin(), m_pieces.end(),
                     [](const auto& a, const auto& b) { return a.range.begin < b.range.begin; });
    uint64_t reach = 0;
    for (const OwnedPiece& piece : m_pieces) {
        reach = std::max(reach, piece.range.end);
        m_reach.push_back(reach);
    }
}

std::size_t OwnerFinder::firstReaching(uint64_t offset) const {
    const auto first = std::upper_bound(m_reach.begin(), m_reach.end(), offset);
    return static_cast<std::size_t>(first - m_reach.begin());
}

OwnedPiece OwnerFinder::cut(const OwnedPiece& piece, const ByteRange& range) {
    OwnedPiece result = piece;
    result.range.begin = std::max(piece.range.begin, range.begin);
    result.range.end = std::min(piece.range.end, range.end);
    const uint64_t skipped = result.range.begin - piece.range.begin;
    result.fileOffset += skipped;
    result.volumeOffset += skipped;
    return result;
}
