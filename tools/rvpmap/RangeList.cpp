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

std::vector<ByteRange> united(std::vector<ByteRange> ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const ByteRange& a, const ByteRange& b) { return a.begin < b.begin; });
    std::vector<ByteRange> result;
    for (const ByteRange& range : ranges) {
        if (!result.empty() && range.begin <= result.back().end) {
            result.back().end = std::max(result.back().end, range.end);
        } else {
            result.push_back(range);
        }
    }
    return result;
}
