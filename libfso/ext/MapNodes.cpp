#include "MapNodes.h"

#include <algorithm>

fso_status MapNodes::get(const ExtFileSystem& fs, const ExtInode& inode, const MapNodeKey& key,
                         Check check, const MapNode** node) {
    auto slot = std::ranges::find(m_slots, key, [](const Slot& s) { return s.node.key; });
    if (slot == m_slots.end()) {
        slot = std::ranges::min_element(m_slots, {}, &Slot::lastUse);
        slot->node = {};
        slot->buffer.resize(fs.blockSize());
        if (const fso_status status = fs.readScatteredBlock(key.block, slot->buffer.data())) {
            fs.volume().report(FS_LOG_WARNING,
                               "ext: inode %u: block %llu, which maps the file, cannot be read",
                               inode.number(), static_cast<unsigned long long>(key.block));
            return status;
        }
        slot->node.key = key;
        slot->node.bytes = slot->buffer;
        check(fs, inode, slot->node);
    }
    slot->lastUse = ++m_clock;
    *node = &slot->node;
    return FSO_OK;
}
