// What the characters of metadata text are; internal to LvmConfig. Letters and digits are those of
// ASCII, whatever the locale.
#ifndef RVP_LVMCHARCLASS_H
#define RVP_LVMCHARCLASS_H

#include <array>
#include <cstdint>

enum LvmCharClass : std::uint8_t {
    BLANK = 1,
    DELIMITER = 2,
    DIGIT = 4,
    FIRST = 8, // of an identifier
    WORD = 16,
    NOT_NEWLINE = 32,
    IN_STRING = 64, // as it stands
};

inline constexpr std::array<std::uint8_t, 256> LVM_CHAR_CLASSES = [] {
    std::array<std::uint8_t, 256> classes{};
    classes.fill(NOT_NEWLINE | IN_STRING);
    const auto mark = [&classes](const char* characters, int marks) {
        for (; *characters != '\0'; ++characters) {
            std::uint8_t& entry = classes[static_cast<unsigned char>(*characters)];
            entry = static_cast<std::uint8_t>(entry | marks);
        }
    };
    const auto unmark = [&classes](char character, int marks) {
        std::uint8_t& entry = classes[static_cast<unsigned char>(character)];
        entry = static_cast<std::uint8_t>(entry & ~marks);
    };
    mark(" \t\n", BLANK);
    mark("{}[]=,", DELIMITER);
    mark("0123456789", DIGIT | WORD);
    mark("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_", FIRST | WORD);
    mark("-.+", WORD);
    unmark('\n', NOT_NEWLINE);
    unmark('"', IN_STRING);
    unmark('\\', IN_STRING);
    return classes;
}();

constexpr bool isOf(char character, std::uint8_t classes) {
    return (LVM_CHAR_CLASSES[static_cast<unsigned char>(character)] & classes) != 0;
}

#endif
