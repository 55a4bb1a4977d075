#include "ExtentCursor.h"

#include "fso/IFileSystemObjectV1.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>

namespace {

constexpr uint32_t FLAG_MASK = (1U << FSO_EXTENT_INLINE_LENGTH_SHIFT) - 1;
// No library splits a hole more often than this.
constexpr unsigned MAXIMUM_HOLES_IN_A_ROW = 1U << 20;

ToolError contradiction(uint64_t offset, const char* what) {
    return {ExitStatus::FAILED, fmt::format("cannot be mapped from byte {} on: {}", offset, what)};
}

} // namespace

bool Run::isHole() const {
    return (flags & FSO_EXTENT_HOLE) != 0;
}
bool Run::isInline() const {
    return (flags & FSO_EXTENT_INLINE) != 0;
}
bool Run::isEncoded() const {
    return (flags & FSO_EXTENT_ENCODED) != 0;
}
bool Run::isLast() const {
    return (flags & FSO_EXTENT_LAST) != 0;
}
bool Run::isData() const {
    return (flags & (FSO_EXTENT_HOLE | FSO_EXTENT_UNWRITTEN)) == 0;
}

ExtentCursor::ExtentCursor(File& file) : m_file(file), m_ended(!mayHaveRuns()) {}

// A directory's size is always reported as 0, so it is asked in any case.
bool ExtentCursor::mayHaveRuns() const {
    const kmp_file& attributes = m_file.attributes();
    switch (m_file.typeBits()) {
    case S_IFDIR:
        return true;
    case S_IFREG:
    case S_IFLNK:
        return attributes.size != 0 || attributes.blocks != 0;
    default:
        return false;
    }
}

const Run* ExtentCursor::next() {
    if (m_ended) {
        return nullptr;
    }
    if (m_at == m_count) {
        fetch();
    }
    take(m_batch[static_cast<std::size_t>(m_at++)]);
    m_ended = m_run.isLast();
    if (m_run.length == 0) {
        if (m_ended) {
            return nullptr;
        }
        throw contradiction(m_offset, "the library gave an empty run");
    }
    account();
    return &m_run;
}

void ExtentCursor::fetch() {
    Volume& volume = m_file.volume();
    int done = 0;
    // The provider insists on a node and never looks at it.
    auto* node = reinterpret_cast<kmp_mapdomain_node*>(&done);
    m_at = 0;
    m_count = 0;
    const int code = volume.call(volume.provider().getExtent, m_file.object(), m_offset,
                                 m_batch.data(), BATCH, &m_count, &done, node);
    if (code != 0) {
        throw ToolError(ExitStatus::FAILED, fmt::format("cannot be mapped from byte {} on: {}",
                                                        m_offset, volume.reason(code)));
    }
    if (m_count < 1 || m_count > BATCH) {
        throw contradiction(m_offset, "the library gave no run");
    }
}

void ExtentCursor::take(const kmp_extent& extent) {
    m_run.logical = m_offset;
    m_run.physical = extent.offset;
    m_run.flags = extent.flags & FLAG_MASK;
    m_run.length =
        m_run.isInline() ? extent.flags >> FSO_EXTENT_INLINE_LENGTH_SHIFT : extent.length;
    if (m_run.length > UINT64_MAX - m_offset) {
        throw contradiction(m_offset, "a run reaches past the largest offset");
    }
}

// The runs of one file hold no more bytes than its volume has, or blocks were counted for it.
void ExtentCursor::account() {
    m_offset += m_run.length;
    m_holesInARow = m_run.isHole() ? m_holesInARow + 1 : 0;
    if (!m_run.isHole()) {
        m_allocated += m_run.length;
    }
    const kmp_fs& fileSystem = m_file.volume().statistics();
    const uint64_t most =
        std::max(fileSystem.blockCount * fileSystem.blockSize, m_file.attributes().blocks * 512);
    if (m_allocated > most || m_holesInARow > MAXIMUM_HOLES_IN_A_ROW) {
        throw contradiction(m_offset, "its runs come to no end");
    }
}
