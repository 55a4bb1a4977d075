#include "Checksums.h"

#include <array>
#include <cstring>
#include <string_view>
#include <zlib.h>

namespace {

constexpr std::size_t SECTOR = 512;

// A disk within an image, with places counted from its own start.
class Disk {
  public:
    Disk(PatchedImage& image, std::size_t start, std::size_t size)
        : m_image(image), m_start(start), m_size(size) {}

    std::size_t size() const { return m_size; }
    bool has(std::uint64_t place, std::uint64_t length) const {
        return place <= m_size && length <= m_size - place;
    }
    const char* at(std::size_t place) const { return m_image.bytes().data() + m_start + place; }
    bool isMarked(std::size_t place, std::string_view mark) const {
        return has(place, mark.size()) && std::string_view(at(place), mark.size()) == mark;
    }
    template <typename Value>
    Value get(std::size_t place) const {
        Value value;
        std::memcpy(&value, at(place), sizeof value);
        return value;
    }
    template <typename Value>
    void put(std::size_t place, Value value) {
        std::memcpy(m_image.change(m_start + place, sizeof value), &value, sizeof value);
    }
    std::uint32_t crc(std::uint32_t start, std::size_t place, std::size_t length) const {
        return static_cast<std::uint32_t>(
            crc32_z(start, reinterpret_cast<const unsigned char*>(at(place)), length));
    }

  private:
    PatchedImage& m_image;
    std::size_t m_start;
    std::size_t m_size;
};

// md: the sum of all words but its own, its carries added.

constexpr std::uint32_t MD_MAGIC = 0xA92B4EFC;
constexpr std::size_t MD_SIZE = 4096;

std::uint32_t mdSum(const Disk& disk, std::size_t place, std::size_t length, std::size_t ownPlace) {
    std::uint64_t sum = 0;
    std::size_t at = 0;
    for (; at + 4 <= length; at += 4) {
        sum += at == ownPlace ? 0 : disk.get<std::uint32_t>(place + at);
    }
    if (at + 2 <= length) {
        sum += disk.get<std::uint16_t>(place + at);
    }
    return static_cast<std::uint32_t>(sum) + static_cast<std::uint32_t>(sum >> 32);
}

void renewMd(Disk& disk, std::size_t place) {
    if (!disk.has(place, MD_SIZE) || disk.get<std::uint32_t>(place) != MD_MAGIC) {
        return;
    }
    if (disk.get<std::uint32_t>(place + 4) == 0) {
        constexpr std::size_t SUM = 152;
        disk.put(place + SUM, mdSum(disk, place, MD_SIZE, SUM));
        return;
    }
    constexpr std::size_t SUM = 216;
    constexpr std::size_t COUNT = 220;
    constexpr std::size_t ROLES = 256;
    const std::size_t length = ROLES + std::size_t{disk.get<std::uint32_t>(place + COUNT)} * 2;
    if (length <= MD_SIZE) {
        disk.put(place + SUM, mdSum(disk, place, length, SUM));
    }
}

// LVM2: a CRC without the inversions at its ends.

std::uint32_t lvmCrc(const Disk& disk, std::size_t place, std::size_t length) {
    constexpr std::uint32_t START = 0xF597A6CF;
    return ~disk.crc(~START, place, length);
}

void renewArea(Disk& disk, std::uint64_t place) {
    if (!disk.has(place, SECTOR) || !disk.isMarked(place + 4, " LVM2 x[5A%r0N*>")) {
        return;
    }
    const auto offset = disk.get<std::uint64_t>(place + 40);
    const auto length = disk.get<std::uint64_t>(place + 48);
    if (disk.has(offset, length) && disk.has(place, offset + length)) {
        disk.put(place + 56, lvmCrc(disk, place + offset, length));
    }
    disk.put(place, lvmCrc(disk, place + 4, SECTOR - 4));
}

void renewLabel(Disk& disk, std::size_t place) {
    if (!disk.has(place, SECTOR) || !disk.isMarked(place, "LABELONE")) {
        return;
    }
    disk.put(place + 16, lvmCrc(disk, place + 20, SECTOR - 20));
    std::size_t at = std::size_t{disk.get<std::uint32_t>(place + 20)} + 40;
    for (int lists = 0; lists < 2 && at + 16 <= SECTOR; at += 16) {
        const auto area = disk.get<std::uint64_t>(place + at);
        lists += area == 0;
        if (lists == 1 && area != 0) {
            renewArea(disk, area);
        }
    }
}

// GPT: the usual CRC, of the entries and then of the header.

void renewGpt(Disk& disk, std::size_t place) {
    if (!disk.has(place, SECTOR) || !disk.isMarked(place, "EFI PART")) {
        return;
    }
    const auto headerSize = disk.get<std::uint32_t>(place + 12);
    const auto entries = disk.get<std::uint64_t>(place + 72);
    const std::uint64_t length =
        std::uint64_t{disk.get<std::uint32_t>(place + 80)} * disk.get<std::uint32_t>(place + 84);
    if (entries < disk.size() && disk.has(entries * SECTOR, length)) {
        disk.put(place + 88, disk.crc(0, entries * SECTOR, length));
    }
    if (headerSize <= SECTOR) {
        disk.put(place + 16, std::uint32_t{0});
        disk.put(place + 16, disk.crc(0, place, headerSize));
    }
}

} // namespace

void renewChecksums(PatchedImage& image, std::size_t start, std::size_t size) {
    Disk disk(image, start, size);
    const std::size_t sectors = size / SECTOR;
    for (std::size_t sector = 0; sector < 4; ++sector) {
        renewLabel(disk, sector * SECTOR);
    }
    renewMd(disk, 0);
    renewMd(disk, 8 * SECTOR);
    if (sectors >= 16) {
        renewMd(disk, ((sectors - 16) & ~std::size_t{7}) * SECTOR);
    }
    if (sectors >= 256) {
        renewMd(disk, ((sectors & ~std::size_t{127}) - 128) * SECTOR);
    }
    renewGpt(disk, SECTOR);
    renewGpt(disk, (sectors - 1) * SECTOR);
}
