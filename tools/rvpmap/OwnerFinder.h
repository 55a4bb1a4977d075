// Which files hold the bytes of some ranges, found in one pass over each volume.
//
// The ranges are brought to the volume's own offsets first. Every run of every file is compared
// with all of them, sorted, so the pass costs little more for many ranges than for one; what is
// kept grows with the ranges and with what is found only.
#ifndef RVPMAP_OWNERFINDER_H
#define RVPMAP_OWNERFINDER_H

#include "ExtentCursor.h"
#include "Layer.h"
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
    ByteRange range;  // where the ranges were asked: on the volume or on what it lies on
    std::size_t file; // index into `files`
    uint64_t fileOffset;
    uint64_t volumeOffset;
    uint32_t flags; // of the run
    UseKind use;    // what they are to the volume; no parity
};

// What bytes are that no file holds, the most telling first.
enum class AreaKind {
    FILE_SYSTEM, // free or metadata
    UNREAD,      // of a volume whose content is not recognised
    BEHIND,      // of a volume, behind the end of its file system
    PARITY,
    HIDDEN, // in something that cannot be read, or unused
    REST    // what a partition table, an array or a group does not give to volumes
};
// Bytes of something that lies where the ranges were asked.
struct OwnedArea {
    ByteRange range;
    AreaKind kind;
    std::size_t holder; // index into `holders`
};
struct AreaHolder {
    std::string name; // empty where the ranges are those of one volume
    std::string rest; // of REST: "array metadata"
};

class OwnerFinder {
  public:
    explicit OwnerFinder(const std::vector<ByteRange>& ranges) : m_ranges(united(ranges)) {}

    // All that were asked for, united.
    const std::vector<ByteRange>& ranges() const { return m_ranges; }
    // What follows is on this volume, whose own offsets the ranges are.
    void beginVolume(uint64_t fileSystemBytes);
    // What follows is on a volume that the ranges are used for. The file system is 0 bytes long
    // where there is none.
    void beginVolume(const std::string& name, const std::vector<LayerUse>& uses,
                     uint64_t fileSystemBytes);
    // `uses` of one kind are areas. Where several layers of areas lie over each other, those of the
    // lowest `rank` are told.
    void addAreas(std::size_t rank, AreaKind kind, const AreaHolder& holder,
                  const std::vector<LayerUse>& uses);
    // Throws ToolError when the file cannot be mapped to its end; what came before counts.
    void add(const std::string& path, File& file);
    // To be called once all volumes are through, before anything is asked.
    void finish();

    const std::vector<OwningFile>& files() const { return m_files; }
    const std::vector<AreaHolder>& holders() const { return m_holders; }

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
    std::size_t ranks() const { return m_areas.size(); }
    // Calls `action(area)` for the areas of one rank in a range, cut to it, by offset.
    template <typename Action>
    void forEachArea(std::size_t rank, const ByteRange& range, Action action) const {
        m_areas[rank].forEachIn(range, [&](OwnedArea area, const ByteRange& common) {
            area.range = common;
            action(area);
        });
    }

  private:
    // A use by its place on the volume.
    struct VolumeUse {
        ByteRange range;
        uint64_t offset; // where the ranges were asked
        UseKind kind;
    };

    void addArea(std::size_t rank, const OwnedArea& area);
    // Of the file that was kept last.
    void addPiece(const Run& run, const VolumeUse& use, const ByteRange& common);

    std::vector<ByteRange> m_ranges;
    std::vector<AreaHolder> m_holders;
    std::vector<OwningFile> m_files;
    RangeIndex<OwnedPiece> m_pieces;
    std::vector<RangeIndex<OwnedArea>> m_areas; // by rank
    // Of the volume at hand.
    std::string m_volume;
    RangeIndex<VolumeUse> m_uses;
};

#endif
