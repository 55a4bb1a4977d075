// Block pointers: twelve in the inode, then one block each of pointers to data, to such blocks, and
// to blocks of those. A pointer is a little-endian 32-bit block number, 0 where nothing is mapped.
#include "BlockMap.h"

#include <cstring>

namespace {

// Pointers side by side, each of which maps `span` blocks of the file from `first` on.
struct PointerArray {
    std::span<const char> bytes;
    std::uint64_t first;
    std::uint64_t span;

    std::uint64_t count() const { return bytes.size() / sizeof(std::uint32_t); }
    std::uint32_t at(std::uint64_t index) const {
        std::uint32_t pointer = 0;
        std::memcpy(&pointer, bytes.data() + index * sizeof(pointer), sizeof(pointer));
        return pointer;
    }
    std::uint64_t firstBlock(std::uint64_t index) const { return first + index * span; }
};

// Consecutive zero pointers make one hole, consecutive block numbers one range.
Mapping stretchFrom(const PointerArray& pointers, std::uint64_t index) {
    const std::uint32_t physical = pointers.at(index);
    std::uint64_t end = index + 1;
    while (end < pointers.count() &&
           pointers.at(end) == (physical == 0 ? 0 : physical + (end - index))) {
        ++end;
    }
    return {physical == 0 ? MappingKind::Hole : MappingKind::Written, pointers.firstBlock(index),
            pointers.firstBlock(end), physical};
}

// Pointers bear no checksum; each is judged where it is used.
void acceptNode(const ExtFileSystem&, const ExtInode&, MapNode& node) {
    node.complete = true;
}

fso_status refusePointer(const ExtFileSystem& fs, const ExtInode& inode, std::uint64_t pointer) {
    fs.volume().report(FS_LOG_WARNING, "ext: inode %u: a block pointer is damaged (%llu)",
                       inode.number(), static_cast<unsigned long long>(pointer));
    return FSO_DAMAGED;
}

// The mapping's blocks that lie inside the volume; none is damage.
fso_status trimToVolume(const ExtFileSystem& fs, const ExtInode& inode, Mapping& mapping) {
    if (mapping.kind == MappingKind::Hole) {
        return FSO_OK;
    }
    if (!fs.isFileSpace(mapping.physical, 1)) {
        return refusePointer(fs, inode, mapping.physical);
    }
    mapping.end = std::min(mapping.end, mapping.first + (fs.blockCount() - mapping.physical));
    return FSO_OK;
}

// The array of the inode that maps `block`, and how many levels lie below its pointers.
PointerArray rootFor(const ExtFileSystem& fs, const ExtInode& inode, std::uint64_t block,
                     unsigned& depth) {
    const std::uint64_t perBlock = fs.blockSize() / sizeof(std::uint32_t);
    PointerArray array{inode.blockArea().first(EXT2_NDIR_BLOCKS * sizeof(std::uint32_t)), 0, 1};
    for (depth = 0; depth < 3 && block >= array.firstBlock(array.count()); ++depth) {
        const std::size_t slot = EXT2_NDIR_BLOCKS + depth;
        array = {inode.blockArea().subspan(slot * sizeof(std::uint32_t), sizeof(std::uint32_t)),
                 array.firstBlock(array.count()), (depth == 0 ? 1 : array.span) * perBlock};
    }
    return array;
}

} // namespace

fso_status mapByPointers(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                         std::uint64_t block, Mapping& mapping) {
    unsigned depth = 0;
    PointerArray pointers = rootFor(fs, inode, block, depth);
    for (; depth > 0; --depth) {
        const std::uint64_t index = (block - pointers.first) / pointers.span;
        const std::uint32_t pointer = pointers.at(index);
        if (pointer == 0) {
            mapping = stretchFrom(pointers, index);
            return FSO_OK;
        }
        if (!fs.isFileSpace(pointer, 1)) {
            return refusePointer(fs, inode, pointer);
        }
        const std::uint64_t first = pointers.firstBlock(index);
        const MapNodeKey key = {inode.number(), pointer, depth - 1, first, first + pointers.span};
        const MapNode* node = nullptr;
        if (const fso_status status = nodes.get(fs, inode, key, acceptNode, &node)) {
            return status;
        }
        pointers = {node->bytes, first, pointers.span / (fs.blockSize() / sizeof(std::uint32_t))};
    }
    mapping = stretchFrom(pointers, (block - pointers.first) / pointers.span);
    return trimToVolume(fs, inode, mapping);
}
