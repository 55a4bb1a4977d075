// The blocks that map a file (extent-tree nodes, indirect blocks) that were used last, checked once
// when they are read. Bounded, whatever the number of files.
#ifndef LIBFSO_EXT_MAPNODES_H
#define LIBFSO_EXT_MAPNODES_H

#include "ExtFileSystem.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

// What a node is looked up by: the same block under another parent is another node.
struct MapNodeKey {
    ext2_ino_t inode = 0;
    std::uint64_t block = 0;
    unsigned depth = 0;      // levels below it
    std::uint64_t first = 0; // the file's blocks that it may map
    std::uint64_t end = 0;
    bool operator==(const MapNodeKey&) const = default;
};

struct MapNode {
    MapNodeKey key;
    std::span<const char> bytes;
    unsigned good = 0;     // entries from the beginning that can be trusted
    bool complete = false; // whether those are all
};

class MapNodes {
  public:
    // Judges a node that was just read: sets `good` and `complete`.
    using Check = void (*)(const ExtFileSystem& fs, const ExtInode& inode, MapNode& node);

    // The node is valid until the next call. FSO_IO when it cannot be read.
    fso_status get(const ExtFileSystem& fs, const ExtInode& inode, const MapNodeKey& key,
                   Check check, const MapNode** node);

  private:
    struct Slot {
        MapNode node;
        std::vector<char> buffer;
        std::uint64_t lastUse = 0;
    };
    std::array<Slot, 16> m_slots; // deeper than the deepest path
    std::uint64_t m_clock = 0;
};

#endif
