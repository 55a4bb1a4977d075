// Arrays of hostile md superblocks: the probe over disks in memory, the assembly, and the mapping.
//
// Input: the disks, each with a partition and what lies at its superblock's place, then addresses
// to map. Arrays that divide by zero by the definition of their level's layout (hosts are told to
// look before they map) are not mapped but counted, and the count is written at the end.
#include "ByteSource.h"
#include "Error.h"
#include "Listener.h"
#include "Require.h"
#include "RvpRaid.h"
#include "kmhost.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

namespace {

constexpr std::uint64_t SECTOR_SIZE = 512;
constexpr std::size_t MAX_DISKS = 8;
constexpr std::size_t MAX_ADDRESSES = 16;
constexpr std::size_t MAX_RUNS = 32;

struct Counts {
    unsigned long mapped = 0;
    unsigned long dividingByZero = 0;

    ~Counts() {
        std::fprintf(stderr, "raid: %lu arrays mapped, %lu left out that divide by zero\n", mapped,
                     dividingByZero);
    }
} s_counts;

// A disk that is zero but for one superblock.
struct MemoryDisk {
    RvpDisk disk;
    std::uint64_t sectors = 0;
    std::uint64_t superblockSector = 0;
    std::array<char, MD_SUPERBLOCK_SIZE> superblock{};

    template <typename Value>
    void put(std::size_t offset, Value value) {
        std::memcpy(superblock.data() + offset, &value, sizeof value);
    }
};

bool readDisk(void* context, RvpDisk& /*disk*/, unsigned long sector, unsigned long count,
              char* buffer) {
    const auto& from = *static_cast<const MemoryDisk*>(context);
    require(count == MD_SUPERBLOCK_SIZE / SECTOR_SIZE, "a probe reads eight sectors");
    if (sector > from.sectors || count > from.sectors - sector) {
        return false;
    }
    std::fill_n(buffer, MD_SUPERBLOCK_SIZE, '\0');
    if (sector == from.superblockSector) {
        std::copy(from.superblock.begin(), from.superblock.end(), buffer);
    }
    return true;
}

// Values of members that fit together are likely, any others possible.
std::uint32_t level(ByteSource& in) {
    constexpr std::uint32_t KNOWN[] = {0, 1, 4, 5, 6, 10};
    const std::uint8_t choice = in.byte();
    return choice < 0xF0 ? KNOWN[choice % std::size(KNOWN)] : in.take<std::uint32_t>();
}

std::uint32_t likely(ByteSource& in, std::uint32_t bound) {
    const std::uint8_t choice = in.byte();
    return choice < 0xF0 ? choice % bound : in.take<std::uint32_t>();
}

void fillV090(MemoryDisk& disk, ByteSource& in) {
    disk.put(20, likely(in, 2)); // set
    disk.put(28, level(in));
    disk.put(256, likely(in, 5));       // layout
    disk.put(40, likely(in, 6));        // disks
    disk.put(260, likely(in, 5) << 10); // chunk size
    disk.put(3980, likely(in, 6));      // role
    disk.put(44, likely(in, 3));        // number
    disk.put(3984, in.byte() ^ 6);      // state
}

void fillV10(MemoryDisk& disk, ByteSource& in) {
    const std::uint8_t name = in.byte();
    if (name < 0xE0) {
        const char text[] = {'m', ':', static_cast<char>('0' + name % 2)};
        std::copy(std::begin(text), std::end(text), disk.superblock.begin() + 32);
    } else {
        const auto bytes = in.takeBytes(32);
        std::copy(bytes.begin(), bytes.end(), disk.superblock.begin() + 32);
    }
    disk.put(72, level(in));
    disk.put(76, likely(in, 5));     // layout
    disk.put(92, likely(in, 6));     // disks
    disk.put(88, likely(in, 5) * 2); // chunk sectors
    const std::uint32_t device = likely(in, 6);
    disk.put(160, device);
    const auto role = static_cast<std::uint16_t>(likely(in, 6));
    if (device < 1920) {
        disk.put(256 + 2 * device, role);
    }
}

MemoryDisk makeDisk(ByteSource& in, std::size_t number) {
    MemoryDisk made;
    made.disk.name = "disk" + std::to_string(number % 7);
    RvpPartition& partition = made.disk.partitions.emplace_back();
    partition.startSector = in.number();
    partition.sectorCount = in.number();
    const std::uint8_t shape = in.byte();
    made.sectors = (shape & 1) != 0 ? in.number() : partition.startSector + partition.sectorCount;
    const std::uint64_t length = partition.sectorCount;
    if ((shape & 2) != 0) {
        made.superblockSector = partition.startSector + (length & ~127UL) - 128;
    } else {
        made.superblockSector = partition.startSector + ((length - 16) & ~7UL);
    }
    made.put(0, MD_SUPERBLOCK_MAGIC);
    if ((shape & 4) != 0) {
        fillV090(made, in);
    } else {
        fillV10(made, in);
    }
    for (std::size_t patches = shape >> 5; patches > 0; --patches) {
        const auto place = in.take<std::uint16_t>();
        made.superblock[place % MD_SUPERBLOCK_SIZE] = static_cast<char>(in.byte());
    }
    return made;
}

bool dividesByZero(const RaidVolume& array) {
    const bool chunkless = array.chunkSize < SECTOR_SIZE;
    switch (array.level) {
    case 0:
        return chunkless;
    case 4:
    case 5:
        return chunkless || array.raidDisks < 2;
    case 6:
        return chunkless || array.raidDisks < 3;
    case 10:
        return chunkless && array.members.size() != 2;
    default:
        return false;
    }
}

bool isMirror(const RaidVolume& array) {
    return array.level == 1 || (array.level == 10 && array.members.size() == 2);
}

bool isStriped(const RaidVolume& array) {
    return array.level == 0 || (array.level == 10 && array.members.size() != 2);
}

bool isMemberOf(const std::list<RaidSubdisk>& members, const RvpDisk* disk) {
    return std::any_of(members.begin(), members.end(),
                       [&](const RaidSubdisk& one) { return &one.disk == disk; });
}

bool belongsTo(const RaidVolume& array, const RvpDisk* disk) {
    return isMemberOf(array.members, disk) ||
           std::any_of(array.segments.begin(), array.segments.end(),
                       [&](const Raid_0_Segment& one) { return isMemberOf(one.members, disk); });
}

// Segments count exactly as long as no partition is longer than any disk can be.
bool isSane(const RaidVolume& array) {
    return std::all_of(array.members.begin(), array.members.end(), [](const RaidSubdisk& one) {
        return one.disk.partitions.front().sectorCount < std::uint64_t{1} << 48;
    });
}

// Maps one run; 0 when there is none.
std::uint64_t mapRun(RvpRaid& raid, const RaidVolume& array, RvpVolume& volume,
                     std::uint64_t offset, std::uint64_t length) {
    unsigned long memberOffset = 0;
    unsigned long run = 0;
    unsigned long start = 0;
    RvpDisk* disk = nullptr;
    raid.calculatePartitionRun(&volume, offset, length, memberOffset, run, &disk, &start);
    if (disk == nullptr) {
        require(run == 0 && memberOffset == 0 && start == 0, "a failed mapping writes nothing");
        return 0;
    }
    require(belongsTo(array, disk), "a run lies on a member");
    const RvpPartition& partition = disk->partitions.front();
    require(start == partition.startSector, "a run lies on the member's partition");
    require(run <= length, "a run is no longer than was asked");
    if (isMirror(array)) {
        require(run == length && memberOffset == offset, "a mirror is mapped as it is");
        return run;
    }
    require(run % SECTOR_SIZE == 0 && run <= array.chunkSize, "a run ends with its chunk");
    if (isStriped(array) && isSane(array)) {
        require(memberOffset + run <= partition.sectorCount * SECTOR_SIZE,
                "a stripe lies within its partition");
    }
    return run;
}

void mapRange(RvpRaid& raid, const RaidVolume& array, RvpVolume& volume, std::uint64_t offset,
              std::uint64_t length) {
    for (std::size_t runs = 0; runs < MAX_RUNS && length > 0; ++runs) {
        const std::uint64_t run = mapRun(raid, array, volume, offset, length);
        if (run == 0) {
            return;
        }
        offset += run;
        length -= run;
    }
}

const RaidVolume* findArray(RvpRaid& raid, RvpVolume& volume) {
    try {
        return raid.getRaidVolume(&volume);
    } catch (const OrmaError& error) {
        require(error.getOrmaErrorValue() == 1, "a volume on no array is error 1");
        return nullptr;
    }
}

void mapVolume(RvpRaid& raid, RvpVolume& volume, const std::vector<std::uint64_t>& numbers) {
    const RaidVolume* array = findArray(raid, volume);
    if (array == nullptr) {
        return;
    }
    require(array->complete, "only complete arrays are found");
    if (dividesByZero(*array)) {
        ++s_counts.dividingByZero;
        return;
    }
    ++s_counts.mapped;
    for (std::size_t i = 0; i + 1 < numbers.size(); i += 2) {
        mapRange(raid, *array, volume, numbers[i], numbers[i + 1]);
    }
}

kmp_ehandler s_handler{hear};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    km_debug_level = 1;
    kmhost_log_to(nullptr, nullptr);
    Error::s_pHandler = &s_handler;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ByteSource in(data, size);
    RvpRaid raid;
    std::vector<MemoryDisk> disks;
    for (std::size_t count = 1 + in.below(MAX_DISKS); count > 0; --count) {
        disks.push_back(makeDisk(in, disks.size()));
        raid.addMbrPartition(disks.back().disk, readDisk, &disks.back());
    }
    std::vector<std::uint64_t> numbers;
    while (!in.empty() && numbers.size() < 2 * MAX_ADDRESSES) {
        numbers.push_back(in.number());
    }
    for (const MemoryDisk& one : disks) {
        RvpVolume volume{one.disk.name, one.disk.partitions.front().startSector};
        mapVolume(raid, volume, numbers);
    }
    for (unsigned number = 0; number < 4; ++number) {
        const RaidVolume* array = raid.getRaidVolume(number);
        require(array == nullptr || (array->complete && array->arrayNumber == number &&
                                     array->arrayNumber <= raid.getMaxArrayNumber()),
                "an array is found by its number");
    }
    return 0;
}
