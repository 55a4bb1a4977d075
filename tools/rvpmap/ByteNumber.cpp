#include "ByteNumber.h"

#include <charconv>
#include <cstddef>

namespace {

// The shift of a unit letter; 0 for none.
unsigned unitShift(char unit) {
    constexpr std::string_view UNITS = "KMGT";
    const std::size_t at = UNITS.find(unit);
    return at == std::string_view::npos ? 0 : 10 * (static_cast<unsigned>(at) + 1);
}

} // namespace

std::optional<uint64_t> parseByteNumber(std::string_view text) {
    const unsigned shift = text.empty() ? 0 : unitShift(text.back());
    if (shift != 0) {
        text.remove_suffix(1);
    }
    const bool hexadecimal = text.starts_with("0x");
    if (hexadecimal) {
        text.remove_prefix(2);
    }
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value, hexadecimal ? 16 : 10);
    if (result.ec != std::errc() || result.ptr != end || value > (UINT64_MAX >> shift)) {
        return std::nullopt;
    }
    return value << shift;
}
