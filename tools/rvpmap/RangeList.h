// Byte ranges that a user asks about.
#ifndef RVPMAP_RANGELIST_H
#define RVPMAP_RANGELIST_H

#include <cstdint>
#include <string_view>
#include <vector>

// From `begin` to before `end`; never empty.
struct ByteRange {
    uint64_t begin;
    uint64_t end;
};

// OFFSET or OFFSET+LENGTH, one byte where there is no length. Throws ToolError, USAGE.
ByteRange parseRange(std::string_view text);

// The union of ranges, for questions about what lies in any of them.
class RangeUnion {
  public:
    explicit RangeUnion(std::vector<ByteRange> ranges);

    // Sorted; no two touch.
    const std::vector<ByteRange>& ranges() const { return m_ranges; }
    // Calls `action(ByteRange)` for each part of `begin` to `end` that lies in the union.
    template <typename Action>
    void forEachCommon(uint64_t begin, uint64_t end, Action action) const {
        for (auto range = firstEndingAfter(begin); range != m_ranges.end() && range->begin < end;
             ++range) {
            action(ByteRange{range->begin < begin ? begin : range->begin,
                             range->end < end ? range->end : end});
        }
    }

  private:
    std::vector<ByteRange>::const_iterator firstEndingAfter(uint64_t offset) const;

    std::vector<ByteRange> m_ranges;
};

#endif
