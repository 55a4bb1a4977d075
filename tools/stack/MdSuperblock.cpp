#include "MdSuperblock.h"

#include "PartitionTable.h"
#include "SourceError.h"

#include <algorithm>
#include <asm/byteorder.h>
#include <bit>
#include <cstddef>
#include <cstring>
#include <fmt/format.h>
#include <linux/raid/md_p.h>
#include <linux/types.h>
#include <string_view>

// All numbers on disk are little endian.
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(mdp_super_t) == 4096);
static_assert(sizeof(mdp_superblock_1) == 256);
static_assert(offsetof(mdp_superblock_1, data_offset) == 128);
static_assert(offsetof(mdp_superblock_1, events) == 200);

namespace {

using Buffer = std::array<char, 4096>;

constexpr uint64_t SUPERBLOCK_SECTORS = sizeof(Buffer) / SECTOR_BYTES;
constexpr uint64_t V090_ALIGNMENT = 128; // sectors
constexpr uint32_t RESHAPING_MINOR_VERSION = 91;
constexpr std::size_t LONGEST_ROLE_TABLE =
    (sizeof(Buffer) - sizeof(mdp_superblock_1)) / sizeof(uint16_t);
constexpr uint64_t LARGEST_SECTOR = UINT64_C(1) << 43; // bytes of 1920 members fit 63 bits
constexpr uint64_t CREATION_SECONDS_MASK = (UINT64_C(1) << 40) - 1; // microseconds lie above
constexpr uint64_t NEVER_OUT_OF_SYNC = UINT64_MAX;
constexpr uint16_t FAULTY_ROLE = 0xFFFE; // the others have names in md_p.h
constexpr uint32_t RAID0_LAYOUT_FEATURE = 4096;
constexpr uint32_t PARTIAL_LOG_FEATURES = MD_FEATURE_PPL | MD_FEATURE_MULTIPLE_PPLS;
constexpr uint32_t RESHAPE_FEATURES = MD_FEATURE_RESHAPE_ACTIVE | MD_FEATURE_NEW_OFFSET;

uint32_t foldedSum(uint64_t sum) {
    return static_cast<uint32_t>(sum) + static_cast<uint32_t>(sum >> 32);
}

// The sum of all 32-bit words but the stored sum, which `own` is; a last half word counts as it is.
uint32_t checksum(const Buffer& buffer, std::size_t length, uint32_t own) {
    uint64_t sum = 0;
    std::size_t at = 0;
    for (; at + sizeof(uint32_t) <= length; at += sizeof(uint32_t)) {
        uint32_t word = 0;
        std::memcpy(&word, buffer.data() + at, sizeof word);
        sum += word;
    }
    if (at < length) {
        uint16_t half = 0;
        std::memcpy(&half, buffer.data() + at, sizeof half);
        sum += half;
    }
    return foldedSum(sum - own);
}

bool isNumber(std::string_view text) {
    return !text.empty() && text.size() <= 9 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "host:NAME" or "NAME"; a number names the device md gives it.
std::string nameOf(std::string_view setName) {
    setName = setName.substr(0, setName.find('\0'));
    const std::size_t colon = setName.find(':');
    const std::string_view own =
        colon == std::string_view::npos ? setName : setName.substr(colon + 1);
    return (isNumber(own) ? "md" : "md_") + std::string(own);
}

// One place where a superblock may lie, and what the place says of it.
struct Place {
    const char* version;
    uint64_t sector;
};

// Both in sectors: the last whole 64 KiB of a member.
uint64_t placeV090(uint64_t size) {
    return (size & ~(V090_ALIGNMENT - 1)) - V090_ALIGNMENT;
}

std::vector<Place> placesOn(const Layer& layer) {
    const uint64_t sectors = layer.size() / SECTOR_BYTES;
    std::vector<Place> places;
    if (sectors >= 2 * V090_ALIGNMENT) {
        places.push_back({"0.90", placeV090(sectors)});
    }
    if (sectors >= 2 * SUPERBLOCK_SECTORS + 8) {
        places.push_back({"1.0", (sectors - 2 * SUPERBLOCK_SECTORS) & ~UINT64_C(7)});
        places.push_back({"1.1", 0});
        places.push_back({"1.2", 8});
    }
    return places;
}

class Reader {
  public:
    Reader(const Layer& layer, std::vector<std::string>& notes) : m_layer(layer), m_notes(notes) {}

    std::optional<MdSuperblock> read(const Place& place) {
        Buffer buffer = {};
        if (!fill(place, buffer)) {
            return std::nullopt;
        }
        uint32_t magic = 0;
        std::memcpy(&magic, buffer.data(), sizeof magic);
        if (magic != MD_SB_MAGIC) {
            return std::nullopt;
        }
        return std::string_view(place.version) == "0.90" ? readV090(place, buffer)
                                                         : readV1(place, buffer);
    }

  private:
    // False where an image that was cut short ends before the place.
    bool fill(const Place& place, Buffer& buffer) const {
        try {
            m_layer.read(place.sector * SECTOR_BYTES, buffer.size(), buffer.data());
            return true;
        } catch (const SourceError& error) {
            if (!error.pastEnd()) {
                throw;
            }
            return false;
        }
    }

    std::optional<MdSuperblock> reject(const Place& place, std::string_view why) {
        m_notes.push_back(fmt::format("an md superblock {} is not used: {}", place.version, why));
        return std::nullopt;
    }

    // The superblock at the end of a disk's last partition can be seen from the disk as well. But a
    // table that ends somewhere else may be that of the array, whose first bytes the disk holds.
    bool belongsToPartition(const Place& place, uint64_t componentSectors) const {
        const auto table = readPartitionTable(m_layer);
        return table && std::any_of(table->partitions.begin(), table->partitions.end(),
                                    [&](const PartitionEntry& entry) {
                                        const uint64_t start = entry.start / SECTOR_BYTES;
                                        const uint64_t end = start + entry.size / SECTOR_BYTES;
                                        return end <= m_layer.size() / SECTOR_BYTES &&
                                               start + componentSectors <= place.sector &&
                                               start + placeV090(end - start) == place.sector;
                                    });
    }

    std::optional<MdSuperblock> readV090(const Place& place, const Buffer& buffer) {
        mdp_super_t disk;
        std::memcpy(&disk, buffer.data(), sizeof disk);
        if (disk.major_version != 0) {
            return std::nullopt;
        }
        if (checksum(buffer, buffer.size(), disk.sb_csum) != disk.sb_csum) {
            return reject(place, "its checksum is wrong");
        }
        if (belongsToPartition(place, uint64_t{disk.size} * 2)) {
            return std::nullopt;
        }
        if (disk.raid_disks == 0 || disk.raid_disks > MD_SB_DISKS) {
            return reject(place, "its number of disks makes no sense");
        }
        MdSuperblock found;
        found.version = place.version;
        const uint32_t words[] = {disk.set_uuid0, disk.set_uuid1, disk.set_uuid2, disk.set_uuid3};
        std::memcpy(found.uuid.data(), words, sizeof words);
        found.arrayName = fmt::format("md{}", disk.md_minor);
        found.level = static_cast<int32_t>(disk.level);
        found.layout = disk.layout;
        found.chunkBytes = disk.chunk_size;
        found.raidDisks = disk.raid_disks;
        found.componentSectors = uint64_t{disk.size} * 2; // kept in KiB
        found.events = uint64_t{disk.events_hi} << 32 | disk.events_lo;
        found.created = disk.ctime;
        found.dataSectors = place.sector;
        found.clean = (disk.state & 1U << MD_SB_CLEAN) != 0;
        found.reshaping = disk.minor_version >= RESHAPING_MINOR_VERSION;
        found.role = disk.this_disk.raid_disk;
        found.deviceNumber = disk.this_disk.number;
        for (const mdp_disk_t& other : disk.disks) {
            const bool inSync = (other.state & 1U << MD_DISK_SYNC) != 0 &&
                                (other.state & 1U << MD_DISK_FAULTY) == 0;
            found.roles.push_back(inSync ? other.raid_disk : NO_ROLE);
        }
        if ((disk.this_disk.state & 1U << MD_DISK_FAULTY) != 0) {
            found.kind = MemberKind::FAULTY;
        } else if ((disk.this_disk.state & 1U << MD_DISK_SYNC) != 0 &&
                   found.role < found.raidDisks) {
            found.kind = MemberKind::ACTIVE;
        }
        found.raw = buffer;
        return found;
    }

    std::optional<MdSuperblock> readV1(const Place& place, const Buffer& buffer) {
        mdp_superblock_1 disk;
        std::memcpy(&disk, buffer.data(), sizeof disk);
        // Another version's superblock, or one that belongs to a partition or a larger disk.
        if (disk.major_version != 1 || disk.super_offset != place.sector) {
            return std::nullopt;
        }
        if (disk.max_dev > LONGEST_ROLE_TABLE ||
            checksum(buffer, sizeof disk + disk.max_dev * sizeof(uint16_t), disk.sb_csum) !=
                disk.sb_csum) {
            return reject(place, "its checksum is wrong");
        }
        if (disk.raid_disks == 0 || disk.raid_disks > LONGEST_ROLE_TABLE) {
            return reject(place, "its number of disks makes no sense");
        }
        if (!dataMakesSense(disk, place)) {
            return reject(place, "the place of the data makes no sense");
        }
        MdSuperblock found;
        found.version = place.version;
        std::copy_n(disk.set_uuid, found.uuid.size(), found.uuid.begin());
        found.arrayName = nameOf({disk.set_name, sizeof disk.set_name});
        found.level = static_cast<int32_t>(disk.level);
        found.layout = disk.layout;
        found.chunkBytes = uint64_t{disk.chunksize} * SECTOR_BYTES;
        found.raidDisks = disk.raid_disks;
        found.componentSectors = disk.size;
        found.events = disk.events;
        found.created = disk.ctime & CREATION_SECONDS_MASK;
        found.dataStart = disk.data_offset;
        found.dataSectors = disk.data_size;
        found.clean = disk.resync_offset == NEVER_OUT_OF_SYNC;
        found.reshaping = (disk.feature_map & RESHAPE_FEATURES) != 0;
        found.journal = (disk.feature_map & MD_FEATURE_JOURNAL) != 0;
        found.partialLog = (disk.feature_map & PARTIAL_LOG_FEATURES) != 0;
        found.badBlocks = (disk.feature_map & MD_FEATURE_BAD_BLOCKS) != 0;
        found.zonesAreNamed = (disk.feature_map & RAID0_LAYOUT_FEATURE) != 0;
        found.raw = buffer;
        setRole(found, disk);
        return found;
    }

    static bool dataMakesSense(const mdp_superblock_1& disk, const Place& place) {
        if (disk.data_offset > LARGEST_SECTOR || disk.data_size > LARGEST_SECTOR ||
            disk.size > LARGEST_SECTOR) {
            return false;
        }
        return std::string_view(place.version) == "1.0"
                   ? disk.data_offset + disk.data_size <= place.sector
                   : disk.data_offset >= place.sector + SUPERBLOCK_SECTORS;
    }

    static void setRole(MdSuperblock& found, const mdp_superblock_1& disk) {
        for (uint32_t device = 0; device < disk.max_dev; ++device) {
            uint16_t role = 0;
            std::memcpy(&role, found.raw.data() + sizeof disk + device * sizeof role, sizeof role);
            found.roles.push_back(role);
        }
        const uint32_t role =
            disk.dev_number < disk.max_dev ? found.roles[disk.dev_number] : FAULTY_ROLE;
        found.role = role;
        found.deviceNumber = disk.dev_number;
        if (role == MD_DISK_ROLE_JOURNAL) {
            found.kind = MemberKind::JOURNAL;
        } else if (role == FAULTY_ROLE) {
            found.kind = MemberKind::FAULTY;
        } else if (role >= found.raidDisks) {
            found.kind = MemberKind::SPARE;
        } else if ((disk.feature_map & MD_FEATURE_REPLACEMENT) != 0) {
            found.kind = MemberKind::REPLACEMENT;
        } else if ((disk.feature_map & MD_FEATURE_RECOVERY_OFFSET) != 0) {
            found.kind = MemberKind::REBUILDING;
        } else {
            found.kind = MemberKind::ACTIVE;
        }
    }

    const Layer& m_layer;
    std::vector<std::string>& m_notes;
};

} // namespace

std::string levelName(int32_t level) {
    switch (level) {
    case -1:
        return "level linear";
    case -4:
        return "level multipath";
    case -5:
        return "level faulty";
    default:
        return fmt::format("level {}", level);
    }
}

std::optional<MdSuperblock> readMdSuperblock(const Layer& layer, std::vector<std::string>& notes) {
    Reader reader(layer, notes);
    std::optional<MdSuperblock> newest;
    for (const Place& place : placesOn(layer)) {
        auto found = reader.read(place);
        if (found && (!newest || found->created > newest->created)) {
            newest = std::move(found);
        }
    }
    return newest;
}
