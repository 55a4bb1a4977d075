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

// What lies in any of them, sorted; no two touch.
std::vector<ByteRange> united(std::vector<ByteRange> ranges);

#endif
