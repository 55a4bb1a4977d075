// Where the bytes of a volume lie on the disks below it.
#ifndef RVPMAP_PHYSICALMAP_H
#define RVPMAP_PHYSICALMAP_H

#include "Layer.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

class Stack;

// Bytes that lie together on one disk.
struct PhysicalRun {
    uint64_t logical; // where they begin on the volume
    uint64_t length;
    std::size_t disk; // index into `disks`
    uint64_t offset;  // on the disk
    // The volume's bytes are the exclusive or of several such runs: one member is missing.
    bool rebuilt;
    bool copy; // of a mirror; another run with the same bytes is read
};

class PhysicalMap {
  public:
    // `stack` is null for a volume that was not found on a stack. Both must outlive the map.
    PhysicalMap(const Layer& volume, const Stack* stack);

    // All disks of the stack, or the one that the volume lies on.
    const std::vector<const Layer*>& disks() const { return m_disks; }
    // Appends the runs of a range of the volume, in the volume's order. What lies on no disk has
    // no run. Throws ToolError for a range that cannot be mapped.
    void append(uint64_t offset, uint64_t length, std::vector<PhysicalRun>& runs) const;
    // The same for long ranges: calls `action(run)` without keeping all runs at once.
    template <typename Action>
    void forEachRun(uint64_t offset, uint64_t length, Action action) const {
        std::vector<PhysicalRun> runs;
        for (uint64_t done = 0; done < length;) {
            const uint64_t piece = length - done < PIECE_BYTES ? length - done : PIECE_BYTES;
            runs.clear();
            append(offset + done, piece, runs);
            for (const PhysicalRun& run : runs) {
                action(run);
            }
            done += piece;
        }
    }
    // The disk that the volume is, if it is one.
    std::optional<std::size_t> ownDisk() const { return m_ownDisk; }

  private:
    // An array answers with a run for every chunk.
    static constexpr uint64_t PIECE_BYTES = uint64_t{256} << 20;

    std::size_t indexOf(const Layer* disk) const;

    const Layer& m_volume;
    std::vector<const Layer*> m_disks;
    std::optional<std::size_t> m_ownDisk;
};

#endif
