#include "Table.h"

#include "FileTime.h"
#include "Text.h"

#include <algorithm>
#include <sys/stat.h>

namespace {

const char* colourOf(uint32_t mode) {
    switch (mode & S_IFMT) {
    case S_IFDIR:
        return "1;34";
    case S_IFLNK:
        return "1;36";
    case S_IFIFO:
        return "33";
    case S_IFSOCK:
        return "1;35";
    case S_IFCHR:
    case S_IFBLK:
        return "1;33";
    default:
        return (mode & 0111U) != 0 ? "1;32" : nullptr;
    }
}

char typeLetter(uint64_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return '-';
    case S_IFDIR:
        return 'd';
    case S_IFLNK:
        return 'l';
    case S_IFIFO:
        return 'p';
    case S_IFSOCK:
        return 's';
    case S_IFCHR:
        return 'c';
    case S_IFBLK:
        return 'b';
    default:
        return '?';
    }
}

// Sets the letter of a set-id or sticky bit in the place of an x.
void overlay(char& place, bool set, char letter) {
    if (set) {
        place = place == 'x' ? letter : static_cast<char>(letter - 'a' + 'A');
    }
}

std::string sizeText(const File& file) {
    const kmp_file& attributes = file.attributes();
    const uint32_t type = file.typeBits();
    if (type == S_IFCHR || type == S_IFBLK) {
        return fmt::format("{}, {}", attributes.device >> 32, attributes.device & UINT32_MAX);
    }
    return type == S_IFDIR ? "-" : humanSize(attributes.size);
}

} // namespace

std::string modeText(uint64_t mode) {
    constexpr std::string_view LETTERS = "rwxrwxrwx";
    std::string text(1, typeLetter(mode));
    for (std::size_t i = 0; i < LETTERS.size(); ++i) {
        text.push_back((mode >> (LETTERS.size() - 1 - i) & 1) != 0 ? LETTERS[i] : '-');
    }
    overlay(text[3], (mode & S_ISUID) != 0, 's');
    overlay(text[6], (mode & S_ISGID) != 0, 's');
    overlay(text[9], (mode & S_ISVTX) != 0, 't');
    return text;
}

std::string Table::paint(const char* colour, const std::string& text) const {
    return m_colours && colour != nullptr ? fmt::format("\033[{}m{}\033[0m", colour, text) : text;
}

std::string Table::name(std::string_view bytes, uint32_t mode) const {
    return paint(colourOf(mode), printable(bytes));
}

void Table::appendFile(TextBuffer& out, std::string_view shownName, const File& file,
                       const std::optional<std::string>& target,
                       std::optional<uint64_t> extents) const {
    const kmp_file& attributes = file.attributes();
    fmt::format_to(std::back_inserter(out), "{} {:>3} {:>5} {:>5} {:>8} {} ",
                   modeText(attributes.mode), attributes.linkCount, attributes.owner & UINT32_MAX,
                   attributes.owner >> 32, sizeText(file), localTime(attributes.modifyTime));
    if (extents) {
        fmt::format_to(std::back_inserter(out), "{:>6} ", *extents);
    }
    append(out, name(shownName, static_cast<uint32_t>(attributes.mode)));
    if (target) {
        append(out, " -> ");
        append(out, printable(*target));
    }
    out.push_back('\n');
}

void Table::appendPairs(TextBuffer& out,
                        const std::vector<std::pair<std::string, std::string>>& pairs) const {
    std::size_t widest = 0;
    for (const auto& pair : pairs) {
        widest = std::max(widest, pair.first.size());
    }
    for (const auto& [key, value] : pairs) {
        fmt::format_to(std::back_inserter(out), "{}{:{}}  {}\n", paint("1", key + ":"), "",
                       widest - key.size(), value);
    }
}
