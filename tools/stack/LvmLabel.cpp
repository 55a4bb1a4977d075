#include "LvmLabel.h"

#include "SourceError.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fmt/format.h>
#include <string_view>
#include <zlib.h>

namespace {

static_assert(std::endian::native == std::endian::little); // as the fields on disk

constexpr uint64_t LABEL_SECTORS = 4;
constexpr uint32_t CRC_START = 0xF597A6CF;
constexpr std::string_view LABEL_MAGIC = "LABELONE";
constexpr std::string_view LABEL_TYPE = "LVM2 001";
constexpr std::string_view AREA_MAGIC = " LVM2 x[5A%r0N*>";
constexpr uint32_t AREA_VERSION = 1;
constexpr uint32_t IGNORED = 1; // flag of an area that is not in use
constexpr std::size_t UUID_SIZE = 32;
constexpr uint64_t LARGEST_TEXT = UINT64_C(64) << 20; // far above any that LVM2 writes

struct LabelHeader {
    char id[8];
    uint64_t sector;
    uint32_t crc;    // of what follows it in the sector
    uint32_t offset; // of the physical volume's header
    char type[8];
};
static_assert(sizeof(LabelHeader) == 32 && offsetof(LabelHeader, offset) == 20);

struct AreaLocation {
    uint64_t offset; // bytes
    uint64_t size;
};

struct TextLocation {
    uint64_t offset; // from the area's start
    uint64_t size;
    uint32_t crc;
    uint32_t flags;
};

struct AreaHeader {
    uint32_t crc; // of what follows it in the sector
    char magic[16];
    uint32_t version;
    uint64_t start; // its own place, bytes
    uint64_t size;
    TextLocation text;
};
static_assert(offsetof(AreaHeader, start) == 24 && offsetof(AreaHeader, text) == 40);

using Sector = std::array<char, SECTOR_BYTES>;

// LVM2 leaves out the inversions at both ends of the usual sum.
uint32_t crc(const char* bytes, std::size_t length) {
    return ~static_cast<uint32_t>(
        ::crc32_z(~CRC_START, reinterpret_cast<const unsigned char*>(bytes), length));
}

template <typename Record>
Record recordAt(const Sector& sector, std::size_t offset) {
    Record record;
    std::memcpy(&record, sector.data() + offset, sizeof record);
    return record;
}

// Two lists of areas, each ended by an empty one, follow the UUID and the size.
std::optional<std::vector<AreaLocation>> metadataAreas(const Sector& sector, std::size_t at) {
    std::vector<AreaLocation> areas;
    for (int list = 0; list < 2;) {
        if (at + sizeof(AreaLocation) > SECTOR_BYTES) {
            return std::nullopt;
        }
        const auto area = recordAt<AreaLocation>(sector, at);
        at += sizeof area;
        if (area.offset == 0) {
            ++list;
        } else if (list == 1) {
            areas.push_back(area);
        }
    }
    return areas;
}

class AreaReader {
  public:
    AreaReader(const Layer& layer, const AreaLocation& area) : m_layer(layer), m_area(area) {}

    // The text, or an empty one where the area holds none. Throws a sentence.
    std::string read() {
        Sector sector = {};
        m_layer.read(m_area.offset, sector.size(), sector.data());
        const auto header = recordAt<AreaHeader>(sector, 0);
        if (crc(sector.data() + sizeof header.crc, SECTOR_BYTES - sizeof header.crc) !=
            header.crc) {
            throw SourceError("the checksum of its header is wrong", false);
        }
        if (std::string_view(header.magic, sizeof header.magic) != AREA_MAGIC ||
            header.version != AREA_VERSION || header.start != m_area.offset) {
            throw SourceError("its header makes no sense", false);
        }
        const TextLocation& text = header.text;
        if (text.offset == 0 || (text.flags & IGNORED) != 0) {
            return "";
        }
        if (header.size <= SECTOR_BYTES || text.offset < SECTOR_BYTES ||
            text.offset >= header.size || text.size > header.size - SECTOR_BYTES ||
            text.size > LARGEST_TEXT || text.size > m_layer.size()) {
            throw SourceError("its text lies outside of it", false);
        }
        return readText(header);
    }

  private:
    // The text may go on at the area's start, behind the header.
    std::string readText(const AreaHeader& header) {
        const TextLocation& place = header.text;
        std::string text(place.size, '\0');
        const auto first =
            static_cast<std::size_t>(std::min(place.size, header.size - place.offset));
        m_layer.read(m_area.offset + place.offset, first, text.data());
        m_layer.read(m_area.offset + SECTOR_BYTES, text.size() - first, text.data() + first);
        if (crc(text.data(), text.size()) != place.crc) {
            throw SourceError("the checksum of its text is wrong", false);
        }
        return text;
    }

    const Layer& m_layer;
    const AreaLocation& m_area;
};

void readAreas(const Layer& layer, const std::vector<AreaLocation>& areas, LvmLabel& label) {
    for (const AreaLocation& area : areas) {
        try {
            std::string text = AreaReader(layer, area).read();
            if (!text.empty()) {
                label.texts.push_back(std::move(text));
            }
        } catch (const SourceError& error) {
            label.notes.push_back(fmt::format("the metadata area at byte {} cannot be used: {}",
                                              area.offset, error.what()));
        }
    }
    if (!label.notes.empty() && !label.texts.empty()) {
        label.notes.push_back("the other copy of the metadata is used");
    }
}

} // namespace

std::optional<LvmLabel> readLvmLabel(const Layer& layer, std::vector<std::string>& notes) {
    for (uint64_t number = 0; number < LABEL_SECTORS && (number + 1) * SECTOR_BYTES <= layer.size();
         ++number) {
        Sector sector = {};
        layer.read(number * SECTOR_BYTES, sector.size(), sector.data());
        const auto header = recordAt<LabelHeader>(sector, 0);
        if (std::string_view(header.id, sizeof header.id) != LABEL_MAGIC ||
            std::string_view(header.type, sizeof header.type) != LABEL_TYPE) {
            continue;
        }
        constexpr std::size_t SUMMED = offsetof(LabelHeader, offset);
        constexpr std::size_t LISTS = UUID_SIZE + sizeof(uint64_t);
        const char* wrong = nullptr;
        if (crc(sector.data() + SUMMED, SECTOR_BYTES - SUMMED) != header.crc) {
            wrong = "its checksum is wrong";
        } else if (header.sector != number || header.offset > SECTOR_BYTES - LISTS) {
            wrong = "it makes no sense";
        }
        const auto areas =
            wrong == nullptr ? metadataAreas(sector, header.offset + LISTS) : std::nullopt;
        if (!areas) {
            notes.push_back(fmt::format("the LVM2 label in sector {} is not used: {}", number,
                                        wrong != nullptr ? wrong : "its lists do not end"));
            continue;
        }
        LvmLabel label{{sector.data() + header.offset, UUID_SIZE}, {}, {}};
        readAreas(layer, *areas, label);
        return label;
    }
    return std::nullopt;
}
