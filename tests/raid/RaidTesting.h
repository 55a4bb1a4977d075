// What the tests of RvpRaid share: superblocks written byte by byte, disks, mapped addresses.
#ifndef TESTS_RAIDTESTING_H
#define TESTS_RAIDTESTING_H

#include "RvpRaid.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

// The values of a member's superblock.
struct SuperblockValues {
    std::uint32_t level = 5;
    std::uint32_t layout = 2;
    std::uint32_t disks = 3;
    std::uint32_t chunkSectors = 8;
    std::uint32_t role = 0;
    std::uint32_t number = 1;       // 0.90
    std::uint32_t uuidWord = 0x77;  // 0.90
    std::string setName = "host:1"; // 1.0
    bool isV1 = false;              // the version, for `addMember`
};

struct SuperblockBytes {
    template <typename Value>
    SuperblockBytes& put(std::size_t offset, Value value) {
        std::memcpy(bytes.data() + offset, &value, sizeof value);
        return *this;
    }
    char* data() { return bytes.data(); }
    md_superblock_s* v090() { return reinterpret_cast<md_superblock_s*>(bytes.data()); }
    md_superblock_v1_s* v1() { return reinterpret_cast<md_superblock_v1_s*>(bytes.data()); }

    alignas(8) std::array<char, 4096> bytes{};
};

inline SuperblockBytes v090Bytes(const SuperblockValues& values) {
    SuperblockBytes bytes;
    bytes.put(0, 0xA92B4EFCU)
        .put(20, values.uuidWord)
        .put(28, values.level)
        .put(40, values.disks)
        .put(44, values.number)
        .put(256, values.layout)
        .put(260, values.chunkSectors * 512)
        .put(3980, values.role)
        .put(3984, 6U); // active and in sync
    return bytes;
}

inline SuperblockBytes v1Bytes(const SuperblockValues& values) {
    SuperblockBytes bytes;
    values.setName.copy(bytes.data() + 32, values.setName.size());
    bytes.put(0, 0xA92B4EFCU)
        .put(4, 1U)
        .put(72, values.level)
        .put(76, values.layout)
        .put(88, values.chunkSectors)
        .put(92, values.disks)
        .put(160, 5U)
        .put(256 + 2 * 5, static_cast<std::uint16_t>(values.role));
    return bytes;
}

inline RvpDisk makeDisk(const std::string& name, std::uint64_t start = 2048,
                        std::uint64_t sectors = 8192) {
    RvpDisk disk;
    disk.name = name;
    disk.partitions.push_back({{}, start, sectors});
    return disk;
}

inline void addMember(RvpRaid& raid, const SuperblockValues& values, RvpDisk disk) {
    if (values.isV1) {
        raid.addPartitionToVolume_v1(disk, v1Bytes(values).v1());
    } else {
        raid.addPartitionToVolume(disk, v090Bytes(values).v090());
    }
}

// In roles that begin with that of the values.
inline void addMembers(RvpRaid& raid, SuperblockValues values, const std::vector<RvpDisk>& disks) {
    for (const RvpDisk& disk : disks) {
        addMember(raid, values, disk);
        ++values.role;
    }
}

inline std::string namesOf(const std::list<RaidSubdisk>& members) {
    std::string names;
    for (const RaidSubdisk& member : members) {
        names += member.disk.name + " ";
    }
    return names;
}

struct Mapped {
    unsigned long memberOffset;
    unsigned long run;
    std::string disk;
    unsigned long partitionStart;

    bool operator==(const Mapped&) const = default;
};

inline void PrintTo(const Mapped& mapped, std::ostream* out) {
    *out << mapped.disk << " at " << mapped.memberOffset << " for " << mapped.run;
}

// Nothing when no disk is named.
inline std::optional<Mapped> mapAddress(RvpRaid& raid, RvpVolume volume, unsigned long offset,
                                        unsigned long length) {
    Mapped mapped = {};
    RvpDisk* disk = nullptr;
    raid.calculatePartitionRun(&volume, offset, length, mapped.memberOffset, mapped.run, &disk,
                               &mapped.partitionStart);
    if (disk == nullptr) {
        return std::nullopt;
    }
    mapped.disk = disk->name;
    return mapped;
}

// An error of code 1 was raised by the operation, told to the host, and logged for both.
inline void expectReport(const LogCapture& log, const std::string& function,
                         const std::string& check) {
    const auto told = testing::StartsWith("log:Error <WARN> Error: 0x00000001 occured in file "
                                          "plugin/common/map_v2/rvp/RvpRaid, at line ");
    EXPECT_THAT(log.lines(), testing::ElementsAre(function + ":RvpRaid <ERROR> Exception: " + check,
                                                  told, told));
}

#endif
