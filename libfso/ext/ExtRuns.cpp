#include "ExtRuns.h"

#include "BlockMap.h"
#include "InlineData.h"

#include <algorithm>

namespace {

// A hole may stretch over some nodes that map nothing. A damaged map can repeat such a node without
// end; sound ones hardly contain any.
constexpr unsigned MAX_EMPTY_NODES = 4096;

// The runs of a file from a block on, each as long as it can be.
class RunWalk {
  public:
    RunWalk(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode, std::uint64_t block)
        : m_fs(fs), m_nodes(nodes), m_inode(inode), m_limit(mapLimit(fs, inode)),
          m_sizeBlocks(inode.size() / fs.blockSize() + (inode.size() % fs.blockSize() != 0)),
          m_position(block) {
        lookUp();
    }

    // Behind the last run.
    bool isAtEnd() const {
        return m_status == FSO_OK && m_position >= m_sizeBlocks &&
               (m_position >= m_limit || isTail(m_next));
    }
    // Of the run that `next` would give.
    fso_status status() const { return m_status; }

    Mapping next() {
        Mapping run = m_next;
        run.physical += run.kind == MappingKind::Hole ? 0 : m_position - run.first;
        run.first = m_position;
        while (advance(run.end) && continues(run)) {
            run.end = m_next.end;
        }
        if (isTail(run)) {
            // What lies behind a file's last mapping is a hole only as far as the file's size.
            run.end = std::clamp(m_sizeBlocks, run.first, m_limit);
            m_position = run.end;
        }
        return run;
    }

  private:
    bool isTail(const Mapping& mapping) const {
        return mapping.kind == MappingKind::Hole && mapping.end >= m_limit;
    }

    bool advance(std::uint64_t position) {
        m_position = position;
        return lookUp();
    }

    // False at the map's end and where nothing can be told.
    bool lookUp() {
        if (m_position < m_limit) {
            m_status = mapBlock(m_fs, m_nodes, m_inode, m_position, m_next);
            if (m_status == FSO_OK && m_next.kind == MappingKind::Hole) {
                stretchHole();
            }
            return m_status == FSO_OK;
        }
        m_status = m_position < m_sizeBlocks ? FSO_DAMAGED : FSO_OK; // larger than it can be
        return false;
    }

    // A hole is taken as a whole at once: only then is it known whether anything follows. Where its
    // end cannot be told it ends there, and the next look tells why.
    void stretchHole() {
        Mapping more;
        for (unsigned steps = 0; m_next.end < m_limit; ++steps) {
            if (steps == MAX_EMPTY_NODES) {
                m_fs.volume().report(FS_LOG_WARNING, "ext: inode %u: the map repeats itself",
                                     m_inode.number());
                m_status = FSO_DAMAGED;
                return;
            }
            if (mapBlock(m_fs, m_nodes, m_inode, m_next.end, more) != FSO_OK ||
                more.kind != MappingKind::Hole) {
                return;
            }
            m_next.end = more.end;
        }
    }

    bool continues(const Mapping& run) const {
        return run.kind != MappingKind::Hole && m_next.kind == run.kind &&
               m_next.physical + (m_position - m_next.first) ==
                   run.physical + (run.end - run.first);
    }

    const ExtFileSystem& m_fs;
    MapNodes& m_nodes;
    const ExtInode& m_inode;
    const std::uint64_t m_limit;
    const std::uint64_t m_sizeBlocks;
    std::uint64_t m_position;
    Mapping m_next; // contains m_position, while the status is FSO_OK
    fso_status m_status = FSO_OK;
};

std::uint32_t encodedFlag(const ExtInode& inode) {
    return inode.isEncrypted() ? std::uint32_t{FSO_EXTENT_ENCODED} : 0;
}

std::uint32_t flagsOf(const ExtInode& inode, MappingKind kind) {
    switch (kind) {
    case MappingKind::Hole:
        return FSO_EXTENT_HOLE;
    case MappingKind::Unwritten:
        return FSO_EXTENT_UNWRITTEN;
    case MappingKind::Written:
        break;
    }
    return encodedFlag(inode);
}

fso_extent extentOf(const ExtFileSystem& fs, const ExtInode& inode, const Mapping& run) {
    const std::uint64_t blockSize = fs.blockSize();
    return {run.physical * blockSize, (run.end - run.first) * blockSize, flagsOf(inode, run.kind),
            0};
}

fso_status listMapped(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                      std::uint64_t offset, std::span<fso_extent> extents, std::uint32_t& count) {
    RunWalk walk(fs, nodes, inode, offset / fs.blockSize());
    while (count < extents.size() && walk.status() == FSO_OK && !walk.isAtEnd()) {
        extents[count] = extentOf(fs, inode, walk.next());
        if (walk.isAtEnd()) {
            extents[count].flags |= FSO_EXTENT_LAST;
        }
        ++count;
    }
    if (count == 0) {
        return walk.status();
    }
    const std::uint64_t skipped = offset % fs.blockSize();
    extents[0].offset += (extents[0].flags & FSO_EXTENT_HOLE) != 0 ? 0 : skipped;
    extents[0].length -= skipped;
    return FSO_OK;
}

fso_status listInline(const ExtFileSystem& fs, const ExtInode& inode, std::uint64_t offset,
                      std::span<fso_extent> extents, std::uint32_t& count) {
    const InlinePieces found = findInlinePieces(inode);
    std::uint64_t position = 0;
    for (const InlinePiece& piece : found.pieces) {
        const std::uint64_t end = position + piece.length;
        if (offset < end && piece.length > 0 && count < extents.size()) {
            const std::uint64_t skipped = offset > position ? offset - position : 0;
            const std::uint64_t length = piece.length - skipped;
            std::uint32_t flags = FSO_EXTENT_INLINE | encodedFlag(inode);
            if (found.complete && end == inode.size()) {
                flags |= FSO_EXTENT_LAST;
            }
            flags |= static_cast<std::uint32_t>(length << FSO_EXTENT_INLINE_LENGTH_SHIFT);
            extents[count++] = {inode.volumeOffset() + piece.offset + skipped, length, flags, 0};
        }
        position = end;
    }
    if (count > 0 || found.complete) {
        return FSO_OK;
    }
    fs.volume().report(FS_LOG_WARNING, "ext: inode %u: %zu of %llu bytes of inline data are there",
                       inode.number(), found.length(),
                       static_cast<unsigned long long>(inode.size()));
    return FSO_DAMAGED;
}

} // namespace

fso_status listRuns(const ExtFileSystem& fs, MapNodes& nodes, const ExtInode& inode,
                    std::uint64_t offset, std::span<fso_extent> extents, std::uint32_t& count) {
    fso_status status = FSO_OK;
    if (inode.hasInlineData() || inode.isFastLink()) {
        status = listInline(fs, inode, offset, extents, count);
    } else if (inode.hasContent()) {
        status = listMapped(fs, nodes, inode, offset, extents, count);
    }
    if (status != FSO_OK || count > 0) {
        return status;
    }
    if (offset > 0) {
        return FSO_INVALID;
    }
    extents[count++] = {0, 0, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0};
    return FSO_OK;
}
