#include "DdrescueMap.h"

#include "ExitStatus.h"
#include "Text.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>

namespace {

constexpr std::string_view STATUSES = "?*/-+";
constexpr std::string_view BAD = "*/-";

std::optional<uint64_t> parseNumber(std::string_view text) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    } else if (text.size() > 1 && text.front() == '0') {
        base = 8;
    }
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, base);
    return result.ec == std::errc() && result.ptr == end ? std::optional(value) : std::nullopt;
}

struct Area {
    uint64_t position;
    uint64_t size;
    char status;
};

std::optional<Area> parseArea(const std::string& line) {
    std::istringstream words(line);
    std::string position;
    std::string size;
    std::string status;
    std::string rest;
    words >> position >> size >> status;
    const bool more = static_cast<bool>(words >> rest);
    const auto at = parseNumber(position);
    const auto length = parseNumber(size);
    if (!at || !length || *length > UINT64_MAX - *at || more || status.size() != 1 ||
        STATUSES.find(status.front()) == std::string_view::npos) {
        return std::nullopt;
    }
    return Area{*at, *length, status.front()};
}

bool isComment(const std::string& line) {
    const std::size_t at = line.find_first_not_of(" \t\r");
    return at == std::string::npos || line[at] == '#';
}

ToolError failure(const std::string& path, const std::string& text) {
    return {ExitStatus::FAILED, fmt::format("{}: {}", printable(path), text)};
}

} // namespace

std::vector<ByteRange> readBadAreas(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw failure(path, std::strerror(errno));
    }
    std::vector<ByteRange> bad;
    std::string line;
    bool stateSeen = false;
    for (unsigned number = 1; std::getline(file, line); ++number) {
        if (isComment(line)) {
            continue;
        }
        if (!std::exchange(stateSeen, true)) {
            continue;
        }
        const auto area = parseArea(line);
        if (!area) {
            throw failure(path, fmt::format("line {} is no area of a ddrescue map file", number));
        }
        if (BAD.find(area->status) != std::string_view::npos && area->size != 0) {
            bad.push_back({area->position, area->position + area->size});
        }
    }
    if (file.bad() || !stateSeen) {
        throw failure(path, "is no ddrescue map file");
    }
    return bad;
}
