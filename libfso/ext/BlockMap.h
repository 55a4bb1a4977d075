// Where a file's blocks lie: one question, answered from extent trees or from indirect blocks.
#ifndef LIBFSO_EXT_BLOCKMAP_H
#define LIBFSO_EXT_BLOCKMAP_H

#include "ExtFileSystem.h"
#include "MapNodes.h"

#include <algorithm>
#include <cstdint>

// No map reaches further, in file-system blocks.
constexpr std::uint64_t MAX_FILE_BLOCKS = std::uint64_t{1} << 32;

enum class MappingKind : std::uint8_t { Hole, Written, Unwritten };

// Blocks [first, end) of a file that are mapped alike; the neighbours may be as well.
struct Mapping {
    MappingKind kind = MappingKind::Hole;
    std::uint64_t first = 0;
    std::uint64_t end = 0;
    std::uint64_t physical = 0; // of `first`; 0 for a hole
};

// The mapping that contains `block`, which is below mapLimit. FSO_DAMAGED, and a line in the log,
// when what is said of that block cannot be trusted; FSO_IO when it cannot be read. The time taken
// is a few steps for each level of the map.
fso_status mapByExtents(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                        std::uint64_t block, Mapping& mapping);
fso_status mapByPointers(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                         std::uint64_t block, Mapping& mapping);

inline fso_status mapBlock(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                           std::uint64_t block, Mapping& mapping) {
    return inode.hasExtents() ? mapByExtents(fs, nodes, inode, block, mapping)
                              : mapByPointers(fs, nodes, inode, block, mapping);
}

// The number of blocks that can be mapped in a file.
inline std::uint64_t mapLimit(const ExtFileSystem& fs, const ExtInode& inode) {
    const std::uint64_t pointers = fs.blockSize() / sizeof(std::uint32_t);
    const std::uint64_t reach =
        EXT2_NDIR_BLOCKS + pointers + pointers * pointers + pointers * pointers * pointers;
    return inode.hasExtents() ? MAX_FILE_BLOCKS : std::min(reach, MAX_FILE_BLOCKS);
}

#endif
