// Which files hold the bytes of some ranges, found in one pass over a volume.
//
// Every run of every file is compared with the union of the ranges, so the pass costs little more
// for many ranges than for one; what is kept grows with what is found only.
#ifndef RVPMAP_OWNERFINDER_H
#define RVPMAP_OWNERFINDER_H

#include "ExtentCursor.h"
#include "PhysicalMap.h"
#include "RangeList.h"

#include <optional>
#include <string>
#include <vector>

struct OwningFile {
    std::string path;
    uint64_t index;
    uint32_t typeBits;
    uint64_t size; // bytes; 0 for a directory
};

// Bytes of a range that one file holds.
struct OwnedPiece {
    ByteRange range;  // where the ranges were asked: on the volume or on the disk
    std::size_t file; // index into `files`
    uint64_t fileOffset;
    uint64_t volumeOffset;
    uint32_t flags; // of the run
    bool rebuilt;   // the file's bytes are made from these and others
};

class OwnerFinder {
  public:
    // `disk`: the ranges are on that disk of the map, else on the volume. `map` must outlive the
    // finder.
    OwnerFinder(const std::vector<ByteRange>& ranges, const PhysicalMap& map,
                std::optional<std::size_t> disk);

    // Throws ToolError when the file cannot be mapped to its end; what came before counts.
    void add(const std::string& path, File& file);
    // Sorts what was found; to be called once, before `forEachPiece`.
    void finish();

    const std::vector<OwningFile>& files() const { return m_files; }

    // Calls `action(piece)` for all found pieces in a range, cut to it, by their offsets.
    template <typename Action>
    void forEachPiece(const ByteRange& range, Action action) const {
        for (std::size_t i = firstReaching(range.begin);
             i < m_pieces.size() && m_pieces[i].range.begin < range.end; ++i) {
            if (m_pieces[i].range.end > range.begin) {
                action(cut(m_pieces[i], range));
            }
        }
    }

  private:
    void addRun(const Run& run);
    void addPiece(const Run& run, const ByteRange& common, uint64_t volumeOffset, bool rebuilt);
    std::size_t firstReaching(uint64_t offset) const;
    static OwnedPiece cut(const OwnedPiece& piece, const ByteRange& range);

    RangeUnion m_ranges;
    const PhysicalMap& m_map;
    std::optional<std::size_t> m_disk;
    std::vector<OwningFile> m_files;
    std::vector<OwnedPiece> m_pieces;
    // The largest end among the pieces up to each.
    std::vector<uint64_t> m_reach;
    std::vector<PhysicalRun> m_runs;
    // Of the file at hand.
    const std::string* m_path = nullptr;
    const File* m_file = nullptr;
    bool m_fileKept = false;
};

#endif
