#include "Text.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

namespace {

constexpr Utf8Character BAD_BYTE = {0, 1, false};

unsigned byteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

// Bytes of the character that `lead` begins; 0 when it begins none.
std::size_t characterLength(unsigned lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead < 0xC2) {
        return 0;
    }
    return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
}

bool isControl(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0);
}

// Line and direction controls, with which a name can disguise itself.
bool isDisguise(char32_t c) {
    return c == 0x061C || (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2060 && c <= 0x206F) || c == 0xFEFF;
}

std::string escape(char32_t c) {
    switch (c) {
    case '\n':
        return "\\n";
    case '\t':
        return "\\t";
    case '\r':
        return "\\r";
    case '\\':
        return "\\\\";
    default:
        return c < 0x80 ? fmt::format("\\x{:02x}", static_cast<uint32_t>(c))
                        : fmt::format("\\u{:04x}", static_cast<uint32_t>(c));
    }
}

} // namespace

Utf8Character firstCharacter(std::string_view text) {
    const unsigned lead = byteAt(text, 0);
    const std::size_t length = characterLength(lead);
    if (length == 1) {
        return {lead, 1, true};
    }
    if (length == 0 || length > text.size()) {
        return BAD_BYTE;
    }
    char32_t codePoint = lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned byte = byteAt(text, i);
        if ((byte & 0xC0U) != 0x80) {
            return BAD_BYTE;
        }
        codePoint = codePoint << 6 | (byte & 0x3FU);
    }
    const bool tooLong = (length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000);
    const bool surrogate = codePoint >= 0xD800 && codePoint < 0xE000;
    return tooLong || surrogate || codePoint > 0x10FFFF ? BAD_BYTE
                                                        : Utf8Character{codePoint, length, true};
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const Utf8Character character = firstCharacter(text);
        if (!character.valid) {
            return false;
        }
        text.remove_prefix(character.length);
    }
    return true;
}

std::string toUtf8(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const Utf8Character character = firstCharacter(text);
        result.append(character.valid ? text.substr(0, character.length) : "\xEF\xBF\xBD");
        text.remove_prefix(character.length);
    }
    return result;
}

std::string toHex(std::string_view bytes) {
    std::string digits;
    for (const char byte : bytes) {
        fmt::format_to(std::back_inserter(digits), "{:02x}", static_cast<unsigned char>(byte));
    }
    return digits;
}

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const Utf8Character character = firstCharacter(text);
        if (!character.valid) {
            result += fmt::format("\\x{:02x}", byteAt(text, 0));
        } else if (character.codePoint == '\\' || isControl(character.codePoint) ||
                   isDisguise(character.codePoint)) {
            result += escape(character.codePoint);
        } else {
            result.append(text.substr(0, character.length));
        }
        text.remove_prefix(character.length);
    }
    return result;
}

std::string humanSize(uint64_t bytes) {
    constexpr std::string_view UNITS = "KMGTPE";
    if (bytes < 1024) {
        return fmt::format("{}", bytes);
    }
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; value >= 1023.95 && unit + 1 < UNITS.size(); ++unit) {
        value /= 1024;
    }
    return fmt::format("{:.1f}{}", value, UNITS[unit]);
}

std::string countText(uint64_t count, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}
