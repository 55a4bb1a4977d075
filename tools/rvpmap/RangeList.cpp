#include "RangeList.h"

#include "ByteNumber.h"
#include "ExitStatus.h"
#include "Text.h"

#include <algorithm>
#include <fmt/format.h>

ByteRange parseRange(std::string_view text) {
    const std::size_t plus = text.find('+');
    const auto offset = parseByteNumber(text.substr(0, plus));
    const auto length = plus == std::string_view::npos ? std::optional<uint64_t>(1)
                                                       : parseByteNumber(text.substr(plus + 1));
    if (!offset || !length || *length == 0 || *length > UINT64_MAX - *offset) {
        throw ToolError(
            ExitStatus::USAGE,
            fmt::format("{}: is no range of bytes, OFFSET or OFFSET+LENGTH", printable(text)));
    }
    return {*offset, *offset + *length};
}

RangeUnion::RangeUnion(std::vector<ByteRange> ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const ByteRange& a, const ByteRange& b) { return a.begin < b.begin; });
    for (const ByteRange& range : ranges) {
        if (!m_ranges.empty() && range.begin <= m_ranges.back().end) {
            m_ranges.back().end = std::max(m_ranges.back().end, range.end);
        } else {
            m_ranges.push_back(range);
        }
    }
}

std::vector<ByteRange>::const_iterator RangeUnion::firstEndingAfter(uint64_t offset) const {
    return std::partition_point(m_ranges.begin(), m_ranges.end(),
                                [&](const ByteRange& range) { return range.end <= offset; });
}
