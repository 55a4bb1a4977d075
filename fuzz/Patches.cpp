#include "Patches.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <zlib.h>

namespace {

constexpr std::size_t UNIT = 8;
constexpr std::size_t PIECE = 1024;

std::vector<char> unpacked(const std::string& path) {
    std::vector<char> bytes;
    if (gzFile file = gzopen(path.c_str(), "rb")) {
        char part[65536];
        int count = 0;
        while ((count = gzread(file, part, sizeof part)) > 0) {
            bytes.insert(bytes.end(), part, part + count);
        }
        gzclose(file);
    }
    if (bytes.size() < PIECE) {
        std::fprintf(stderr, "no base image in %s\n", path.c_str());
        std::exit(1);
    }
    return bytes;
}

bool isZero(const std::vector<char>& bytes, std::size_t from, std::size_t to) {
    return std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                       bytes.begin() + static_cast<std::ptrdiff_t>(std::min(to, bytes.size())),
                       [](char byte) { return byte == 0; });
}

void changeWord(char* at, std::size_t width, std::uint8_t how, std::uint64_t value) {
    std::uint64_t word = 0;
    std::memcpy(&word, at, width);
    if (how == 0) {
        word = value;
    } else if (how == 1) {
        word ^= value;
    } else {
        word += value;
    }
    std::memcpy(at, &word, width);
}

} // namespace

BaseImage::BaseImage(const std::string& path) : m_bytes(unpacked(path)) {
    for (std::size_t at = 0; at + UNIT <= m_bytes.size(); at += UNIT) {
        if (!isZero(m_bytes, at < UNIT ? 0 : at - UNIT, at + 2 * UNIT)) {
            m_places.push_back(static_cast<std::uint32_t>(at));
        }
    }
}

char* PatchedImage::change(std::size_t place, std::size_t length) {
    m_changes.push_back({place, length});
    return m_bytes.data() + place;
}

void PatchedImage::apply(ByteSource& in) {
    const std::uint8_t what = in.byte();
    const auto which = in.take<std::uint16_t>();
    const std::vector<std::uint32_t>& places = m_base.places();
    const std::size_t place = places[which % places.size()] + (what >> 5);
    const std::uint8_t how = what & 3;
    if (how < 3) {
        const std::size_t width =
            std::min(std::size_t{1} << (what >> 2 & 3), m_bytes.size() - place);
        std::uint64_t value = 0;
        const auto given = in.takeBytes(width);
        std::copy(given.begin(), given.end(), reinterpret_cast<std::uint8_t*>(&value));
        changeWord(change(place, width), width, how, value);
        return;
    }
    const std::size_t pieces = m_bytes.size() / PIECE;
    const std::size_t from = place / PIECE % pieces * PIECE;
    if ((what & 4) != 0) {
        std::memset(change(from, PIECE), 0, PIECE);
    } else {
        const std::size_t to = in.take<std::uint16_t>() % pieces * PIECE;
        std::memmove(change(to, PIECE), m_bytes.data() + from, PIECE);
    }
}

void PatchedImage::reset() {
    for (const Range& range : m_changes) {
        std::memcpy(m_bytes.data() + range.place, m_base.bytes().data() + range.place,
                    range.length);
    }
    m_changes.clear();
}
