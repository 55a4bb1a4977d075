#include "RvpRaid.h"

#include "Error.h"
#include "RaidLayout.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr int RAID_ERROR = 1;

constexpr std::uint64_t SUPERBLOCK_SECTORS = MD_SUPERBLOCK_SIZE / MD_SECTOR_SIZE;

// Version 0.90 lies in the last whole 64 KiB block of the partition.
constexpr std::uint64_t V090_ALIGNMENT_SECTORS = 128;
// Version 1.0 lies 4 KiB aligned, at least 8 KiB before the end.
constexpr std::uint64_t V10_DISTANCE_SECTORS = 16;
constexpr std::uint64_t V10_ALIGNMENT_SECTORS = 8;

constexpr std::size_t PARTITION_TYPE_BYTE = 2;
constexpr unsigned char LINUX_RAID_AUTODETECT = 0xFD;

constexpr std::uint32_t NO_ARRAY_NUMBER = 0xFFFFFFFF;
constexpr std::size_t LAST_COLON_POSITION = 29;
constexpr std::size_t DEVICE_NAME_SIZE = 80;

constexpr std::uint16_t SPARE_ROLE = 0xFFFF;

// One read of the probe, under each of the versions it may turn out to be.
union SuperblockBuffer {
    char bytes[MD_SUPERBLOCK_SIZE];
    std::uint32_t magic;
    md_superblock_s v090;
    md_superblock_v1_s v1;
};
static_assert(sizeof(SuperblockBuffer) == MD_SUPERBLOCK_SIZE);

void report(const Error& error) {
    error.callback(KMP_SEVERITY_WARNING, true);
    error.log(KMP_SEVERITY_WARNING);
}

std::uint64_t roundDown(std::uint64_t value, std::uint64_t powerOfTwo) {
    return value & ~(powerOfTwo - 1);
}

RvpPartition& raidPartition(RvpDisk& disk) {
    return disk.partitions.front();
}

const RvpPartition& raidPartition(const RvpDisk& disk) {
    return disk.partitions.front();
}

std::uint32_t roleOf(const md_superblock_s& superblock) {
    return superblock.this_disk_raid_disk;
}

// Spare and faulty devices have roles like any other.
std::uint32_t roleOf(const md_superblock_v1_s& superblock) {
    if (superblock.dev_number >= std::size(superblock.dev_roles)) {
        return SPARE_ROLE;
    }
    return superblock.dev_roles[superblock.dev_number];
}

RaidSubdisk makeMember(std::uint32_t role, const RvpDisk& disk) {
    RaidSubdisk member{role, disk};
    if (role == 0) {
        raidPartition(member.disk).lead[PARTITION_TYPE_BYTE] = LINUX_RAID_AUTODETECT;
    }
    return member;
}

void insertByRole(RaidVolume& volume, RaidSubdisk member) {
    const auto next =
        std::find_if(volume.members.begin(), volume.members.end(),
                     [&](const RaidSubdisk& other) { return other.role > member.role; });
    volume.members.insert(next, std::move(member));
}

// The number behind the first colon, or that of a name that starts with a digit. `field` holds all
// 32 bytes of the name, because a colon counts even past a terminating zero.
std::uint32_t arrayNumberOf(const std::string& field) {
    const std::size_t colon = field.find(':');
    const char* number = nullptr;
    if (colon <= LAST_COLON_POSITION) {
        number = field.c_str() + colon + 1;
    } else if (field.front() >= '0' && field.front() <= '9') {
        number = field.c_str();
    } else {
        return NO_ARRAY_NUMBER;
    }
    return static_cast<std::uint32_t>(std::strtol(number, nullptr, 10));
}

std::string numberedDeviceName(std::uint32_t number) {
    char name[DEVICE_NAME_SIZE];
    V_snprintf(name, sizeof name, "/dev/md%d", static_cast<int>(number));
    return name;
}

std::string namedDeviceName(const char* setName) {
    char name[DEVICE_NAME_SIZE];
    V_snprintf(name, sizeof name, "/dev/md_%s", setName);
    return name;
}

bool isMappableLevel(std::uint32_t level) {
    switch (level) {
    case 0:
    case 1:
    case 4:
    case 5:
    case 6:
    case 10:
        return true;
    default:
        return false;
    }
}

// Names of disks differ in their last character as a rule; a look at it saves most comparisons.
bool sameName(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           (a.empty() || (a.back() == b.back() && std::memcmp(a.data(), b.data(), a.size()) == 0));
}

bool holdsVolume(const RaidVolume& array, const RvpVolume& volume) {
    for (const RaidSubdisk& member : array.members) {
        if (sameName(member.disk.name, volume.diskName) &&
            raidPartition(member.disk).startSector == volume.partitionStart) {
            return true;
        }
    }
    return false;
}

// A member on its way into the segments, and how many chunks its partition holds.
struct StripeMember {
    const RaidSubdisk* member;
    std::uint64_t chunks;
};

// The members from the first on, `stride` apart.
std::vector<StripeMember> stripeMembers(const RaidVolume& volume, std::size_t stride) {
    const std::uint64_t chunkSectors = volume.chunkSize / MD_SECTOR_SIZE;
    std::vector<StripeMember> members;
    if (chunkSectors == 0) {
        return members; // nothing can be placed
    }
    std::size_t place = 0;
    for (const RaidSubdisk& member : volume.members) {
        if (place++ % stride == 0) {
            members.push_back({&member, raidPartition(member.disk).sectorCount / chunkSectors});
        }
    }
    return members;
}

void appendSegments(RaidVolume& volume, std::vector<StripeMember> members) {
    std::list<Raid_0_Segment> segments; // all of them or, when memory is short, none
    std::uint64_t used = 0;
    for (;;) {
        std::erase_if(members, [&](const StripeMember& one) { return one.chunks <= used; });
        if (members.empty()) {
            volume.segments.splice(volume.segments.end(), segments);
            return;
        }
        const auto shortest = std::min_element(
            members.begin(), members.end(),
            [](const StripeMember& a, const StripeMember& b) { return a.chunks < b.chunks; });
        const std::uint64_t step = shortest->chunks - used;

        Raid_0_Segment& segment = segments.emplace_back();
        segment.chunks = members.size() * step;
        for (const StripeMember& one : members) {
            segment.members.push_back(*one.member);
        }
        used += step;
    }
}

// Completes an array that has grown to just the number of disks that its newest member's superblock
// counts. A complete array stays as it is, whoever joins it.
void completeAt(RvpRaid& raid, RaidVolume& volume, std::uint32_t raidDisks, std::uint32_t level) {
    if (volume.complete || volume.members.size() != raidDisks) {
        return;
    }
    if (level == 0) {
        raid.setupStriping(volume);
    } else if (level == 10) {
        raid.setupRAID10Striping(volume);
    }
    volume.complete = true;
}

// The same right behind the arrival of a member, which goes again when memory is short, so that it
// can be added once more.
void completeOrTakeBack(RvpRaid& raid, RaidVolume& volume, std::uint32_t raidDisks,
                        std::uint32_t level, std::uint32_t newestRole) {
    try {
        completeAt(raid, volume, raidDisks, level);
    } catch (...) {
        const auto newest =
            std::find_if(volume.members.rbegin(), volume.members.rend(),
                         [&](const RaidSubdisk& member) { return member.role == newestRole; });
        volume.members.erase(std::prev(newest.base()));
        throw;
    }
}

RaidSubdisk* findMember(RaidVolume& volume, std::uint64_t role) {
    const auto found = std::find_if(volume.members.begin(), volume.members.end(),
                                    [&](const RaidSubdisk& member) { return member.role == role; });
    return found == volume.members.end() ? nullptr : &*found;
}

void putMember(RaidSubdisk& member, RvpDisk** disk, unsigned long* partitionStart) {
    *disk = &member.disk;
    *partitionStart = raidPartition(member.disk).startSector;
}

} // namespace

RvpRaid::RvpRaid() = default;

RvpRaid::~RvpRaid() = default;

void RvpRaid::addMbrPartition(RvpDisk& disk,
                              bool (*read)(void* context, RvpDisk& disk, unsigned long sector,
                                           unsigned long count, char* buffer),
                              void* context) {
    try {
        const std::unique_ptr<SuperblockBuffer> buffer(new (std::nothrow) SuperblockBuffer{});
        VERIFY_PTR(buffer, KMP_EINVAL);
        const std::uint64_t start = raidPartition(disk).startSector;
        const std::uint64_t length = raidPartition(disk).sectorCount;

        const std::uint64_t v090Sector =
            start + roundDown(length, V090_ALIGNMENT_SECTORS) - V090_ALIGNMENT_SECTORS;
        VERIFY_ORMA_BOOL(read(context, disk, v090Sector, SUPERBLOCK_SECTORS, buffer->bytes),
                         RAID_ERROR);
        if (buffer->magic == MD_SUPERBLOCK_MAGIC) {
            addPartitionToVolume(disk, &buffer->v090);
            return;
        }

        const std::uint64_t v10Sector =
            start + roundDown(length - V10_DISTANCE_SECTORS, V10_ALIGNMENT_SECTORS);
        VERIFY_ORMA_BOOL(read(context, disk, v10Sector, SUPERBLOCK_SECTORS, buffer->bytes),
                         RAID_ERROR);
        if (buffer->magic == MD_SUPERBLOCK_MAGIC) {
            addPartitionToVolume_v1(disk, &buffer->v1);
        }
    } catch (const Error& error) {
        report(error);
    }
}

void RvpRaid::addPartitionToVolume(RvpDisk& disk, md_superblock_s* superblock) {
    if ((superblock->this_disk_state & MD_DISK_IN_SYNC) == 0) {
        return;
    }
    const auto volume =
        std::find_if(m_volumes.begin(), m_volumes.end(),
                     [&](const RaidVolume& one) { return one.setWord == superblock->set_uuid0; });
    if (volume == m_volumes.end()) {
        createVolume(disk, superblock);
        return;
    }
    addToVolume(*volume, disk, superblock);
    completeOrTakeBack(*this, *volume, superblock->raid_disks, superblock->level,
                       roleOf(*superblock));
}

void RvpRaid::addPartitionToVolume_v1(RvpDisk& disk, md_superblock_v1_s* superblock) {
    const auto volume =
        std::find_if(m_volumes.begin(), m_volumes.end(), [&](const RaidVolume& one) {
            return std::strncmp(one.setName, superblock->set_name, sizeof one.setName) == 0;
        });
    if (volume == m_volumes.end()) {
        createVolume_v1(disk, superblock);
        return;
    }
    addToVolume_v1(*volume, disk, superblock);
    completeOrTakeBack(*this, *volume, superblock->raid_disks, superblock->level,
                       roleOf(*superblock));
}

void RvpRaid::createVolume(RvpDisk& disk, md_superblock_s* superblock) {
    RaidVolume volume;
    volume.members.push_back(makeMember(roleOf(*superblock), disk));
    volume.arrayNumber = superblock->md_minor;
    volume.deviceName = numberedDeviceName(volume.arrayNumber);
    volume.setWord = superblock->set_uuid0;
    volume.majorVersion = superblock->major_version;
    volume.level = superblock->level;
    volume.layout = superblock->layout;
    volume.raidDisks = superblock->raid_disks;
    volume.chunkSize = superblock->chunk_size;

    m_maxArrayNumber = std::max(m_maxArrayNumber, volume.arrayNumber);
    m_volumes.push_back(std::move(volume));
}

void RvpRaid::createVolume_v1(RvpDisk& disk, md_superblock_v1_s* superblock) {
    const std::string setName(superblock->set_name, sizeof superblock->set_name);
    RaidVolume volume;
    volume.members.push_back(makeMember(roleOf(*superblock), disk));
    volume.arrayNumber = arrayNumberOf(setName);
    if (volume.arrayNumber != NO_ARRAY_NUMBER) {
        m_maxArrayNumber = std::max(m_maxArrayNumber, volume.arrayNumber);
        volume.deviceName = numberedDeviceName(volume.arrayNumber);
    } else {
        volume.deviceName = namedDeviceName(setName.c_str());
    }
    setName.copy(volume.setName, sizeof volume.setName);
    volume.majorVersion = superblock->major_version;
    volume.level = superblock->level;
    volume.layout = superblock->layout;
    volume.raidDisks = superblock->raid_disks;
    volume.chunkSize = superblock->chunksize * static_cast<std::uint32_t>(MD_SECTOR_SIZE);

    m_volumes.push_back(std::move(volume));
}

void RvpRaid::addToVolume(RaidVolume& volume, RvpDisk& disk, md_superblock_s* superblock) {
    insertByRole(volume, makeMember(roleOf(*superblock), disk));
}

void RvpRaid::addToVolume_v1(RaidVolume& volume, RvpDisk& disk, md_superblock_v1_s* superblock) {
    insertByRole(volume, makeMember(roleOf(*superblock), disk));
}

void RvpRaid::setupStriping(RaidVolume& volume) {
    appendSegments(volume, stripeMembers(volume, 1));
}

void RvpRaid::setupRAID10Striping(RaidVolume& volume) {
    const std::size_t count = volume.members.size();
    if (count > 2 && count % 2 == 0) {
        appendSegments(volume, stripeMembers(volume, 2));
    }
}

unsigned int RvpRaid::getMaxArrayNumber() {
    return m_maxArrayNumber;
}

RaidVolume* RvpRaid::getRaidVolume(unsigned int number) {
    const auto found = std::find_if(m_volumes.begin(), m_volumes.end(), [&](const RaidVolume& one) {
        return one.complete && one.arrayNumber == number && isMappableLevel(one.level);
    });
    return found == m_volumes.end() ? nullptr : &*found;
}

RaidVolume* RvpRaid::getRaidVolume(RvpVolume* volume) {
    const auto found = std::find_if(m_volumes.begin(), m_volumes.end(), [&](const RaidVolume& one) {
        return one.complete && holdsVolume(one, *volume);
    });
    VERIFY_ORMA(found != m_volumes.end(), RAID_ERROR);
    return &*found;
}

void RvpRaid::calculatePartitionRun(RvpVolume* volume, unsigned long offset, unsigned long length,
                                    unsigned long& memberOffset, unsigned long& runLength,
                                    RvpDisk** disk, unsigned long* partitionStart) {
    RaidVolume& array = *getRaidVolume(volume);
    try {
        switch (array.level) {
        case 0:
            calculateStripePartitionRun(array, offset, length, memberOffset, runLength, disk,
                                        partitionStart);
            break;
        case 1:
            calculateMirrorPartitionRun(array, offset, length, memberOffset, runLength, disk,
                                        partitionStart);
            break;
        case 4:
            calculateRaid4PartitionRun(array, offset, length, memberOffset, runLength, disk,
                                       partitionStart);
            break;
        case 5:
            calculateRaid5PartitionRun(array, offset, length, memberOffset, runLength, disk,
                                       partitionStart);
            break;
        case 6:
            calculateRaid6PartitionRun(array, offset, length, memberOffset, runLength, disk,
                                       partitionStart);
            break;
        case 10:
            calculateRaid10PartitionRun(array, offset, length, memberOffset, runLength, disk,
                                        partitionStart);
            break;
        default:
            VERIFY_ORMA(isMappableLevel(array.level), RAID_ERROR);
        }
    } catch (const Error& error) {
        report(error);
    }
}

void RvpRaid::calculateStripePartitionRun(RaidVolume& volume, unsigned long offset,
                                          unsigned long length, unsigned long& memberOffset,
                                          unsigned long& runLength, RvpDisk** disk,
                                          unsigned long* partitionStart) {
    const ChunkPlace place(volume.chunkSize, offset);
    unsigned long memberChunk = 0;
    getChunkOffset(volume, place.chunk, memberChunk, disk, partitionStart);
    memberOffset = place.memberOffset(memberChunk);
    runLength = place.runLength(length);
}

void RvpRaid::calculateMirrorPartitionRun(RaidVolume& volume, unsigned long offset,
                                          unsigned long length, unsigned long& memberOffset,
                                          unsigned long& runLength, RvpDisk** disk,
                                          unsigned long* partitionStart) {
    putMember(volume.members.front(), disk, partitionStart);
    memberOffset = offset;
    runLength = length;
}

void RvpRaid::calculateRaid4PartitionRun(RaidVolume& volume, unsigned long offset,
                                         unsigned long length, unsigned long& memberOffset,
                                         unsigned long& runLength, RvpDisk** disk,
                                         unsigned long* partitionStart) {
    const ChunkPlace place(volume.chunkSize, offset);
    const ParityPlace parityPlace(place.chunk, volume.raidDisks - 1);
    RaidSubdisk* member = findMember(volume, parityPlace.dataIndex);
    if (member == nullptr) {
        return; // unlike the other levels; callers tell it by the results they preset
    }
    putMember(*member, disk, partitionStart);
    memberOffset = place.memberOffset(parityPlace.stripe);
    runLength = place.runLength(length);
}

void RvpRaid::calculateRaid5PartitionRun(RaidVolume& volume, unsigned long offset,
                                         unsigned long length, unsigned long& memberOffset,
                                         unsigned long& runLength, RvpDisk** disk,
                                         unsigned long* partitionStart) {
    const ChunkPlace place(volume.chunkSize, offset);
    const ParityPlace parityPlace(place.chunk, volume.raidDisks - 1);
    const std::optional<std::uint64_t> role =
        raid5Role(volume.layout, volume.raidDisks, parityPlace);
    VERIFY_ORMA(role.has_value(), RAID_ERROR);
    RaidSubdisk* member = findMember(volume, *role);
    VERIFY_ORMA(member != nullptr, RAID_ERROR);
    putMember(*member, disk, partitionStart);
    memberOffset = place.memberOffset(parityPlace.stripe);
    runLength = place.runLength(length);
}

void RvpRaid::calculateRaid6PartitionRun(RaidVolume& volume, unsigned long offset,
                                         unsigned long length, unsigned long& memberOffset,
                                         unsigned long& runLength, RvpDisk** disk,
                                         unsigned long* partitionStart) {
    const ChunkPlace place(volume.chunkSize, offset);
    const ParityPlace parityPlace(place.chunk, volume.raidDisks - 2);
    const std::optional<std::uint64_t> role =
        raid6Role(volume.layout, volume.raidDisks, parityPlace);
    VERIFY_ORMA(role.has_value(), RAID_ERROR);
    RaidSubdisk* member = findMember(volume, *role);
    VERIFY_ORMA(member != nullptr, RAID_ERROR);
    putMember(*member, disk, partitionStart);
    memberOffset = place.memberOffset(parityPlace.stripe);
    runLength = place.runLength(length);
}

void RvpRaid::calculateRaid10PartitionRun(RaidVolume& volume, unsigned long offset,
                                          unsigned long length, unsigned long& memberOffset,
                                          unsigned long& runLength, RvpDisk** disk,
                                          unsigned long* partitionStart) {
    if (volume.members.size() == 2) {
        calculateMirrorPartitionRun(volume, offset, length, memberOffset, runLength, disk,
                                    partitionStart);
    } else {
        calculateStripePartitionRun(volume, offset, length, memberOffset, runLength, disk,
                                    partitionStart);
    }
}

void RvpRaid::getChunkOffset(RaidVolume& volume, unsigned long chunk, unsigned long& memberChunk,
                             RvpDisk** disk, unsigned long* partitionStart) {
    memberChunk = 0;
    auto segment = volume.segments.begin();
    for (; segment != volume.segments.end() && chunk >= segment->chunks; ++segment) {
        chunk -= segment->chunks;
        memberChunk += segment->chunks / segment->members.size();
    }
    VERIFY_ORMA(segment != volume.segments.end(), RAID_ERROR);

    const std::size_t count = segment->members.size();
    memberChunk += chunk / count;
    auto member = segment->members.begin();
    for (std::size_t place = chunk % count; place > 0 && member != segment->members.end();
         --place) {
        ++member;
    }
    VERIFY_ORMA(member != segment->members.end(), RAID_ERROR);
    putMember(*member, disk, partitionStart);
}
