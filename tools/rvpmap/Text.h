// Bytes as text: UTF-8, escapes for terminals, sizes that people can read.
#ifndef RVPMAP_TEXT_H
#define RVPMAP_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// One character at the beginning of some text.
struct Utf8Character {
    char32_t codePoint; // meaningless in a bad byte
    std::size_t length; // bytes; 1 for a bad byte
    bool valid;         // shortest form, no surrogate, at most U+10FFFF
};
// `text` must not be empty.
Utf8Character firstCharacter(std::string_view text);
bool isUtf8(std::string_view text);

// `text` with each byte that is not UTF-8 replaced by U+FFFD.
std::string toUtf8(std::string_view text);
// Two digits a byte.
std::string toHex(std::string_view bytes);
// For terminals: backslashes, control and direction characters and bytes that are not UTF-8 are
// shown as escapes.
std::string printable(std::string_view text);
// "512", "4.0K", "1.5G": powers of 1024, at most six characters.
std::string humanSize(uint64_t bytes);
// "1 file", "2 files".
std::string countText(uint64_t count, std::string_view one, std::string_view many);

#endif
