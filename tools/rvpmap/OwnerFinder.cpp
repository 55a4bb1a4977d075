#include "OwnerFinder.h"

#include <algorithm>

void OwnerFinder::beginVolume(uint64_t fileSystemBytes) {
    m_map = nullptr;
    m_volumes.emplace_back();
    m_ranges.forEachCommon(0, fileSystemBytes, [&](const ByteRange& common) {
        m_areas.add({common, AreaKind::FILE_SYSTEM, m_volumes.size() - 1});
    });
}

void OwnerFinder::beginVolume(const std::string& name, const PhysicalMap& map, std::size_t disk,
                              uint64_t bytes, AreaKind kind) {
    m_map = &map;
    m_disk = disk;
    m_volumes.push_back(name);
    map.forEachRun(0, bytes, [&](const PhysicalRun& run) {
        if (run.disk == disk && !run.rebuilt) {
            m_ranges.forEachCommon(run.offset, run.offset + run.length,
                                   [&](const ByteRange& common) {
                                       m_areas.add({common, kind, m_volumes.size() - 1});
                                   });
        }
    });
}

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
    if (m_map == nullptr) {
        const uint64_t end = run.physical + std::min(run.length, UINT64_MAX - run.physical);
        m_ranges.forEachCommon(run.physical, end, [&](const ByteRange& common) {
            addPiece(run, common, common.begin, false);
        });
        return;
    }
    m_map->forEachRun(run.physical, run.length, [&](const PhysicalRun& piece) {
        if (piece.disk == m_disk) {
            m_ranges.forEachCommon(
                piece.offset, piece.offset + piece.length, [&](const ByteRange& common) {
                    const uint64_t skipped = common.begin - piece.offset;
                    addPiece(run, common, piece.logical + skipped, piece.rebuilt);
                });
        }
    });
}

void OwnerFinder::addPiece(const Run& run, const ByteRange& common, uint64_t volumeOffset,
                           bool rebuilt) {
    if (!m_fileKept) {
        m_files.push_back({m_volumes.back(), *m_path, m_file->index(), m_file->typeBits(),
                           m_file->attributes().size});
        m_fileKept = true;
    }
    m_pieces.add({common, m_files.size() - 1, run.logical + (volumeOffset - run.physical),
                  volumeOffset, run.flags, rebuilt});
}

void OwnerFinder::finish() {
    m_pieces.sort();
    m_areas.sort();
}
