// Numbers of bytes as users write them.
#ifndef RVPMAP_BYTENUMBER_H
#define RVPMAP_BYTENUMBER_H

#include <cstdint>
#include <optional>
#include <string_view>

// Decimal or, after 0x, hexadecimal, with K, M, G or T behind it for powers of 1024. Empty for
// anything else and for numbers past 64 bits.
std::optional<uint64_t> parseByteNumber(std::string_view text);

#endif
