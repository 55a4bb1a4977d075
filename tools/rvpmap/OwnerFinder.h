// Which files hold the bytes of some ranges, found in one pass over each volume.
//
// Every run of every file is compared with the union of the ranges, so the pass costs little more
// for many ranges than for one; what is kept grows with what is found only.
#ifndef RVPMAP_OWNERFINDER_H
#define RVPMAP_OWNERFINDER_H

#include "ExtentCursor.h"
#include "PhysicalMap.h"
#include "RangeIndex.h"

#include <string>
#include <vector>

struct OwningFile {
    std::string volume; // empty where the ranges are those of one volume
    std::string path;
    uint64_t index;
    uint32_t typeBits;
    uint64_t size; // bytes; 0 for a directory
};

// Bytes that one file holds.
struct OwnedPiece {
    ByteRange range;  // where the ranges were asked: on the volume or on the disk
    std::size_t file; // index into `files`
    uint64_t fileOffset;
    uint64_t volumeOffset;
    uint32_t flags; // of the run
    bool rebuilt;   // the file's bytes are made from these and others
};

enum class AreaKind {
    FILE_SYSTEM, // what of it no file holds is free or metadata
    UNREAD       // a volume whose content is not recognised
};
// Bytes that a volume holds, whoever holds them on it.
struct VolumeArea {
    ByteRange range;
    AreaKind kind;
    std::size_t volume; // index into `volumes`
};

class OwnerFinder {
  public:
    explicit OwnerFinder(const std::vector<ByteRange>& ranges) : m_ranges(ranges) {}

    // What follows is on this volume, whose own offsets the ranges are.
    void beginVolume(uint64_t fileSystemBytes);
    // What follows is on a volume over the disk that the ranges are on. `map` must stay until the
    // next one. Throws ToolError when the volume cannot be mapped.
    void beginVolume(const std::string& name, const PhysicalMap& map, std::size_t disk,
                     uint64_t bytes, AreaKind kind);
    // Throws ToolError when the file cannot be mapped to its end; what came before counts.
    void add(const std::string& path, File& file);
    // To be called once all volumes are through, before anything is asked.
    void finish();

    const std::vector<OwningFile>& files() const { return m_files; }
    const std::vector<std::string>& volumes() const { return m_volumes; }

    // Calls `action(piece)` for what files hold of a range, cut to it, by offset.
    template <typename Action>
    void forEachPiece(const ByteRange& range, Action action) const {
        m_pieces.forEachIn(range, [&](OwnedPiece piece, const ByteRange& common) {
            const uint64_t skipped = common.begin - piece.range.begin;
            piece.range = common;
            piece.fileOffset += skipped;
            piece.volumeOffset += skipped;
            action(piece);
        });
    }
    // Calls `action(area)` for what volumes hold of a range, cut to it, by offset.
    template <typename Action>
    void forEachArea(const ByteRange& range, Action action) const {
        m_areas.forEachIn(range, [&](VolumeArea area, const ByteRange& common) {
            area.range = common;
            action(area);
        });
    }

  private:
    void addRun(const Run& run);
    void addPiece(const Run& run, const ByteRange& common, uint64_t volumeOffset, bool rebuilt);

    RangeUnion m_ranges;
    std::vector<std::string> m_volumes;
    std::vector<OwningFile> m_files;
    RangeIndex<OwnedPiece> m_pieces;
    RangeIndex<VolumeArea> m_areas;
    // Of the volume at hand; a null map where the ranges are its own.
    const PhysicalMap* m_map = nullptr;
    std::size_t m_disk = 0;
    // Of the file at hand.
    const std::string* m_path = nullptr;
    const File* m_file = nullptr;
    bool m_fileKept = false;
};

#endif
