// Linux md arrays: assembly from member superblocks, and mapping of array addresses to members.
//
// A host shows RvpRaid its partitions one by one (`addMbrPartition`); the members that carry a
// superblock of version 0.90 or 1.0 gather into arrays. For a volume on a complete array
// `calculatePartitionRun` then tells which member holds a byte address:
//
//     RvpRaid raid;
//     for (RvpDisk& disk : disks) {
//         raid.addMbrPartition(disk, readSectors, &reader);
//     }
//     RvpDisk* disk = nullptr; // preset: a failed mapping writes nothing
//     raid.calculatePartitionRun(&volume, offset, length, memberOffset, run, &disk, &start);
//     if (disk != nullptr) {
//         // `run` bytes lie on `disk` from byte start * 512 + memberOffset on
//     }
//
// Units: sectors (512 bytes) for the places and sizes of partitions, bytes for chunk sizes,
// addresses and runs, chunks for segments. Members with metadata 1.1 or 1.2 are not recognised.
//
// The fields and operations below, their order and signatures are part of the binary interface.
#ifndef RVP_RVPRAID_H
#define RVP_RVPRAID_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

// A partition as the host describes it.
struct RvpPartition {
    unsigned char lead[8] = {};    // the host's but for byte 2, the partition type
    std::uint64_t startSector = 0; // on its disk
    std::uint64_t sectorCount = 0;
};

// A disk as the host describes it. The host's own fields are copied and never looked at.
struct RvpDisk {
    std::uint64_t caller[4] = {};
    std::string name;
    std::uint32_t callerWord = 0;
    std::list<RvpPartition> partitions; // only the first is used, and there must be one
    std::uint64_t callerTail[3] = {};
    std::uint8_t callerByte = 0;
};

// Where a volume of the host lies.
struct RvpVolume {
    std::string diskName;
    std::uint64_t partitionStart = 0; // in sectors
};

// A member of an array.
struct RaidSubdisk {
    std::uint32_t role = 0; // its slot in the array
    RvpDisk disk;           // a copy; the first partition of role 0 is marked as type 0xFD
};

// A zone of a striped array over which the same members take part.
struct Raid_0_Segment {
    std::uint64_t chunks = 0;       // of all members together
    std::list<RaidSubdisk> members; // copies, in role order
};

// An array. It keeps the values of the superblock that its first member brought.
struct RaidVolume {
    bool complete = false;
    std::uint32_t arrayNumber = 0; // 0xFFFFFFFF for a named array without a number
    std::string deviceName;        // "/dev/md3", "/dev/md_backup"
    std::uint32_t setWord = 0;     // version 0.90: first word of the set's UUID; 1.0: 0
    std::uint32_t majorVersion = 0;
    std::uint32_t level = 0;
    std::uint32_t layout = 0; // levels 5 and 6: the parity algorithm, 0 to 3
    std::uint32_t raidDisks = 0;
    std::uint32_t chunkSize = 0;        // bytes
    char setName[32] = {};              // version 1.0, not always terminated; 0.90: zero
    std::list<RaidSubdisk> members;     // by role, equal roles as they came
    std::list<Raid_0_Segment> segments; // of a complete array of level 0 or 10
};

// The superblocks below lie over the 4096 bytes as read from the member; all numbers are little
// endian. Fields have the names of the Linux kernel's headers, which define the layouts:
// include/uapi/linux/raid/md_p.h, `mdp_superblock_t` and `struct mdp_superblock_1`.
static_assert(std::endian::native == std::endian::little);

constexpr std::uint32_t MD_SUPERBLOCK_MAGIC = 0xA92B4EFC;
constexpr std::size_t MD_SUPERBLOCK_SIZE = 4096;

// Version 0.90: 1024 words of 32 bits.
struct md_superblock_s {
    std::uint32_t md_magic;      // byte 0
    std::uint32_t major_version; // 4
    std::uint32_t not_used_8[3];
    std::uint32_t set_uuid0; // 20
    std::uint32_t not_used_24;
    std::uint32_t level; // 28
    std::uint32_t not_used_32[2];
    std::uint32_t raid_disks; // 40
    std::uint32_t md_minor;   // 44
    std::uint32_t not_used_48[52];
    std::uint32_t layout;     // 256
    std::uint32_t chunk_size; // 260, bytes
    std::uint32_t not_used_264[929];
    std::uint32_t this_disk_raid_disk; // 3980, the slot of the disk that was read
    std::uint32_t this_disk_state;     // 3984, see MD_DISK_IN_SYNC
    std::uint32_t not_used_3988[27];
};

constexpr std::uint32_t MD_DISK_IN_SYNC = 4; // in `this_disk_state`

// Version 1.0.
struct md_superblock_v1_s {
    std::uint32_t magic;         // byte 0
    std::uint32_t major_version; // 4
    unsigned char not_used_8[24];
    char set_name[32]; // 32, ends at a zero byte or after 32 bytes
    unsigned char not_used_64[8];
    std::uint32_t level;  // 72
    std::uint32_t layout; // 76
    unsigned char not_used_80[8];
    std::uint32_t chunksize;  // 88, sectors
    std::uint32_t raid_disks; // 92
    unsigned char not_used_96[64];
    std::uint32_t dev_number; // 160, index into dev_roles
    unsigned char not_used_164[92];
    std::uint16_t dev_roles[1920]; // 256
};

static_assert(offsetof(md_superblock_s, set_uuid0) == 20);
static_assert(offsetof(md_superblock_s, level) == 28);
static_assert(offsetof(md_superblock_s, md_minor) == 44);
static_assert(offsetof(md_superblock_s, layout) == 256);
static_assert(offsetof(md_superblock_s, this_disk_raid_disk) == 3980);
static_assert(sizeof(md_superblock_s) == MD_SUPERBLOCK_SIZE);
static_assert(offsetof(md_superblock_v1_s, set_name) == 32);
static_assert(offsetof(md_superblock_v1_s, level) == 72);
static_assert(offsetof(md_superblock_v1_s, chunksize) == 88);
static_assert(offsetof(md_superblock_v1_s, dev_number) == 160);
static_assert(offsetof(md_superblock_v1_s, dev_roles) == 256);
static_assert(sizeof(md_superblock_v1_s) == MD_SUPERBLOCK_SIZE);

// The arrays seen so far. Everything handed in is copied; a disk or array handed out belongs to
// this object and stays until it is destroyed. One thread at a time.
//
// Errors leave as `OrmaError` with code 1 after a log line, except where an operation says that it
// reports them itself: it then tells the host's error handler, logs, and returns as if nothing had
// happened. Standard exceptions (no memory) pass through every operation; the arrays are then as
// they were, though a number that was seen may be the highest now.
//
// Nothing is checked that the superblocks say of themselves: a chunk size below 512 bytes, less
// than two disks at level 4 or 5, or less than three at level 6, divide by zero when an address is
// mapped. A host that cannot trust its disks looks at the superblocks that pass through its read
// callback, or at the array before it maps.
class RvpRaid {
  public:
    RvpRaid();
    virtual ~RvpRaid();
    RvpRaid(const RvpRaid&) = delete;
    RvpRaid& operator=(const RvpRaid&) = delete;

    // Looks for a superblock in the disk's first partition, first at the 0.90 place and then at the
    // 1.0 place, and adds the member found. `read` fills the buffer of `count` * 512 bytes from the
    // absolute sector given and answers whether it could; it is always asked for 8 sectors. For a
    // partition that is too short the sector wraps below zero: `read` has to refuse what is not on
    // the disk. A partition without a superblock changes nothing. Reports errors itself, those of
    // a refused read as well.
    void addMbrPartition(RvpDisk& disk,
                         bool (*read)(void* context, RvpDisk& disk, unsigned long sector,
                                      unsigned long count, char* buffer),
                         void* context);

    // Add a member to the array it belongs to, or to a new one, and complete the array when the
    // member's superblock counts as many disks as the array now has. Only an array that existed
    // before is completed: an array of one disk never is.
    //
    // Version 0.90: a member that is not in sync is ignored; arrays are told apart by the first
    // word of the UUID alone.
    void addPartitionToVolume(RvpDisk& disk, md_superblock_s* superblock);
    // Version 1.0: arrays are told apart by the set name, of which at most 32 bytes count. The role
    // of a device number past the superblock's end is taken as 0xFFFF.
    void addPartitionToVolume_v1(RvpDisk& disk, md_superblock_v1_s* superblock);

    // The steps of the two operations above: start an array with its first member, or sort a member
    // in by its role.
    void createVolume(RvpDisk& disk, md_superblock_s* superblock);
    void createVolume_v1(RvpDisk& disk, md_superblock_v1_s* superblock);
    void addToVolume(RaidVolume& volume, RvpDisk& disk, md_superblock_s* superblock);
    void addToVolume_v1(RaidVolume& volume, RvpDisk& disk, md_superblock_v1_s* superblock);

    // Append the segments of a striped array, by md's rule for members of unequal length: the first
    // segment takes what the shortest member holds on all of them, the next goes on over those that
    // are longer, and so on.
    void setupStriping(RaidVolume& volume);
    // Level 10 is read as pairs of adjacent mirrors, whatever its layout: stripes over the first of
    // each pair. Two members, or an uneven count, give no segments.
    void setupRAID10Striping(RaidVolume& volume);

    // The highest number of any array, 0 at the start.
    unsigned int getMaxArrayNumber();
    // The first complete array of this number and of a level that can be mapped, or null. Write the
    // number as unsigned (0u): a plain 0 is also a null pointer.
    RaidVolume* getRaidVolume(unsigned int number);
    // The first complete array with a member whose disk name and first partition's start are those
    // of the volume; throws when there is none.
    RaidVolume* getRaidVolume(RvpVolume* volume);

    // Maps the byte address `offset` of the array under `volume`:
    //   memberOffset    bytes from the start of the member's partition
    //   runLength       bytes, at most `length`, that follow one another on that member
    //   disk            the member's disk
    //   partitionStart  the member's partition on that disk, in sectors
    // But for mirrors, a run ends with its chunk, and the bytes by which address or length go
    // beyond a sector are dropped. Throws when no complete array holds the volume. Any later error
    // is reported, not thrown, and leaves the results as the caller preset them.
    void calculatePartitionRun(RvpVolume* volume, unsigned long offset, unsigned long length,
                               unsigned long& memberOffset, unsigned long& runLength,
                               RvpDisk** disk, unsigned long* partitionStart);

    // The same for one level. They throw instead of reporting, and write nothing when they do.
    void calculateStripePartitionRun(RaidVolume& volume, unsigned long offset, unsigned long length,
                                     unsigned long& memberOffset, unsigned long& runLength,
                                     RvpDisk** disk, unsigned long* partitionStart);
    // The first member of the array, which must have one, holds all of it.
    void calculateMirrorPartitionRun(RaidVolume& volume, unsigned long offset, unsigned long length,
                                     unsigned long& memberOffset, unsigned long& runLength,
                                     RvpDisk** disk, unsigned long* partitionStart);
    // Writes nothing and throws nothing when the member is missing.
    void calculateRaid4PartitionRun(RaidVolume& volume, unsigned long offset, unsigned long length,
                                    unsigned long& memberOffset, unsigned long& runLength,
                                    RvpDisk** disk, unsigned long* partitionStart);
    void calculateRaid5PartitionRun(RaidVolume& volume, unsigned long offset, unsigned long length,
                                    unsigned long& memberOffset, unsigned long& runLength,
                                    RvpDisk** disk, unsigned long* partitionStart);
    void calculateRaid6PartitionRun(RaidVolume& volume, unsigned long offset, unsigned long length,
                                    unsigned long& memberOffset, unsigned long& runLength,
                                    RvpDisk** disk, unsigned long* partitionStart);
    void calculateRaid10PartitionRun(RaidVolume& volume, unsigned long offset, unsigned long length,
                                     unsigned long& memberOffset, unsigned long& runLength,
                                     RvpDisk** disk, unsigned long* partitionStart);

    // Finds a chunk of the array in the segments: the member and which of its chunks it is. Throws
    // past the last segment; `memberChunk` then counts the chunks of all segments on a member.
    void getChunkOffset(RaidVolume& volume, unsigned long chunk, unsigned long& memberChunk,
                        RvpDisk** disk, unsigned long* partitionStart);

  private:
    std::uint32_t m_maxArrayNumber = 0;
    std::list<RaidVolume> m_volumes; // in order of creation
};

// Strings and lists lie in the records as the C++ library of the platform makes them, so that the
// records have no standard layout; the compilers know their offsets all the same.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(RvpPartition, startSector) == 8 &&
              offsetof(RvpPartition, sectorCount) == 16);
static_assert(sizeof(RvpPartition) == 24);
static_assert(offsetof(RvpDisk, name) == 32 && offsetof(RvpDisk, callerWord) == 64);
static_assert(offsetof(RvpDisk, partitions) == 72 && offsetof(RvpDisk, callerTail) == 96);
static_assert(offsetof(RvpDisk, callerByte) == 120 && sizeof(RvpDisk) == 128);
static_assert(offsetof(RvpVolume, partitionStart) == 32 && sizeof(RvpVolume) == 40);
static_assert(offsetof(RaidSubdisk, disk) == 8 && sizeof(RaidSubdisk) == 136);
static_assert(offsetof(Raid_0_Segment, members) == 8 && sizeof(Raid_0_Segment) == 32);
static_assert(offsetof(RaidVolume, arrayNumber) == 4 && offsetof(RaidVolume, deviceName) == 8);
static_assert(offsetof(RaidVolume, setWord) == 40 && offsetof(RaidVolume, majorVersion) == 44);
static_assert(offsetof(RaidVolume, level) == 48 && offsetof(RaidVolume, layout) == 52);
static_assert(offsetof(RaidVolume, raidDisks) == 56 && offsetof(RaidVolume, chunkSize) == 60);
static_assert(offsetof(RaidVolume, setName) == 64 && offsetof(RaidVolume, members) == 96);
static_assert(offsetof(RaidVolume, segments) == 120 && sizeof(RaidVolume) == 144);
static_assert(sizeof(RvpRaid) == 40);
#pragma GCC diagnostic pop

#endif
