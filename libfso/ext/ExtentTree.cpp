// Extent trees: nodes of 12-byte entries behind a 12-byte header, the root inside the inode. All
// numbers are little-endian. Layout: ext3_extents.h of libext2fs.
#include "BlockMap.h"

#include <cstring>

namespace {

constexpr std::size_t ENTRY_SIZE = 12;
static_assert(sizeof(ext3_extent_header) == ENTRY_SIZE);
static_assert(sizeof(ext3_extent) == ENTRY_SIZE && sizeof(ext3_extent_idx) == ENTRY_SIZE);
constexpr unsigned MAX_DEPTH = 5;

ext3_extent_header headerOf(const MapNode& node) {
    ext3_extent_header header;
    std::memcpy(&header, node.bytes.data(), sizeof(header));
    return header;
}

template <typename Entry>
Entry entryOf(const MapNode& node, unsigned index) {
    Entry entry;
    std::memcpy(&entry, node.bytes.data() + ENTRY_SIZE * (index + 1), sizeof(entry));
    return entry;
}

std::uint64_t firstBlockOf(const MapNode& node, unsigned index) {
    static_assert(offsetof(ext3_extent, ee_block) == 0 && offsetof(ext3_extent_idx, ei_block) == 0);
    return entryOf<ext3_extent>(node, index).ee_block;
}

// A length above EXT_INIT_MAX_LEN marks a range that was never written.
Mapping mappingOf(const ext3_extent& extent) {
    const bool unwritten = extent.ee_len > EXT_INIT_MAX_LEN;
    const std::uint64_t length = unwritten ? extent.ee_len - EXT_INIT_MAX_LEN : extent.ee_len;
    return {unwritten ? MappingKind::Unwritten : MappingKind::Written, extent.ee_block,
            extent.ee_block + length, extent.ee_start | std::uint64_t{extent.ee_start_hi} << 32};
}

std::uint64_t childOf(const ext3_extent_idx& index) {
    return index.ei_leaf | std::uint64_t{index.ei_leaf_hi} << 32;
}

bool isHeaderSound(const MapNode& node) {
    const ext3_extent_header header = headerOf(node);
    return header.eh_magic == EXT3_EXT_MAGIC && header.eh_depth == node.key.depth &&
           header.eh_depth <= MAX_DEPTH && header.eh_entries <= header.eh_max &&
           (header.eh_max + std::size_t{1}) * ENTRY_SIZE <= node.bytes.size();
}

bool isEntrySound(const ExtFileSystem& fs, const MapNode& node, unsigned index,
                  std::uint64_t previousEnd, std::uint64_t& end) {
    if (node.key.depth > 0) {
        const auto entry = entryOf<ext3_extent_idx>(node, index);
        end = std::uint64_t{entry.ei_block} + 1;
        return entry.ei_block >= previousEnd && end <= node.key.end &&
               fs.isFileSpace(childOf(entry), 1);
    }
    const Mapping mapping = mappingOf(entryOf<ext3_extent>(node, index));
    end = mapping.end;
    return mapping.end > mapping.first && mapping.first >= previousEnd &&
           mapping.end <= node.key.end &&
           fs.isFileSpace(mapping.physical, mapping.end - mapping.first);
}

// Entries ascend without overlap inside the bounds that the parent gives, and point into the
// volume. Those before the first that does not are trusted.
void checkEntries(const ExtFileSystem& fs, const ExtInode& inode, MapNode& node) {
    const bool isSound = isHeaderSound(node);
    const unsigned count = isSound ? headerOf(node).eh_entries : 0;
    std::uint64_t end = node.key.first;
    for (node.good = 0; node.good < count; ++node.good) {
        if (!isEntrySound(fs, node, node.good, end, end)) {
            break;
        }
    }
    node.complete = isSound && node.good == count;
    if (!node.complete) {
        fs.volume().report(FS_LOG_WARNING,
                           "ext: inode %u: the extent tree is damaged at entry %u of the node in "
                           "block %llu",
                           inode.number(), node.good,
                           static_cast<unsigned long long>(node.key.block));
    }
}

void checkNode(const ExtFileSystem& fs, const ExtInode& inode, MapNode& node) {
    // libext2fs takes the node for writable and only reads it; its size follows from the header.
    auto* header = reinterpret_cast<ext3_extent_header*>(const_cast<char*>(node.bytes.data()));
    if (isHeaderSound(node) &&
        ext2fs_extent_block_csum_verify(fs.handle(), inode.number(), header) == 0) {
        fs.volume().report(FS_LOG_WARNING,
                           "ext: inode %u: the extent-tree node in block %llu has a wrong checksum",
                           inode.number(), static_cast<unsigned long long>(node.key.block));
        return;
    }
    checkEntries(fs, inode, node);
}

// The trusted entries that begin at `block` or before it.
unsigned countUpTo(const MapNode& node, std::uint64_t block) {
    unsigned low = 0;
    unsigned high = node.good;
    while (low < high) {
        const unsigned middle = (low + high) / 2;
        if (firstBlockOf(node, middle) <= block) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

// Where the entries before `count` leave off and the next begins. Without a trusted next entry a
// damaged node says nothing of what follows.
fso_status gapBehind(const MapNode& node, unsigned count, std::uint64_t first, Mapping& mapping) {
    if (count == node.good && !node.complete) {
        return FSO_DAMAGED;
    }
    mapping = {MappingKind::Hole, first,
               count < node.good ? firstBlockOf(node, count) : node.key.end, 0};
    return FSO_OK;
}

// `count` entries begin at `block` or before it; none, where the node is not a leaf.
fso_status mapInNode(const MapNode& node, std::uint64_t block, unsigned count, Mapping& mapping) {
    if (count == 0) {
        return gapBehind(node, 0, node.key.first, mapping);
    }
    mapping = mappingOf(entryOf<ext3_extent>(node, count - 1));
    return block < mapping.end ? FSO_OK : gapBehind(node, count, mapping.end, mapping);
}

} // namespace

fso_status mapByExtents(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                        std::uint64_t block, Mapping& mapping) {
    MapNode root;
    root.bytes = inode.blockArea();
    root.key = {inode.number(), 0, headerOf(root).eh_depth, 0, MAX_FILE_BLOCKS};
    checkEntries(fs, inode, root);
    const MapNode* node = &root;
    bool endIsKnown = true; // false below the last trusted entry of a damaged node
    unsigned count = countUpTo(*node, block);
    for (; node->key.depth > 0 && count > 0; count = countUpTo(*node, block)) {
        const bool isLast = count == node->good;
        endIsKnown = endIsKnown && (!isLast || node->complete);
        const auto entry = entryOf<ext3_extent_idx>(*node, count - 1);
        const MapNodeKey key = {inode.number(), childOf(entry), node->key.depth - 1, entry.ei_block,
                                isLast ? node->key.end : firstBlockOf(*node, count)};
        if (const fso_status status = nodes.get(fs, inode, key, checkNode, &node)) {
            return status;
        }
    }
    const fso_status status = mapInNode(*node, block, count, mapping);
    const bool isTail = mapping.kind == MappingKind::Hole && mapping.end == node->key.end;
    return status == FSO_OK && isTail && !endIsKnown ? FSO_DAMAGED : status;
}
