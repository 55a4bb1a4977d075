// What the tests of RvpRaid share: superblocks written byte by byte, disks, mapped addresses, and
// what the host hears of errors.
#ifndef TESTS_RAIDTESTING_H
#define TESTS_RAIDTESTING_H

#include "Error.h"
#include "RvpRaid.h"
#include "support/ErrorListener.h"
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
};

class SuperblockBytes {
  public:
    template <typename Value>
    SuperblockBytes& put(std::size_t offset, Value value) {
        std::memcpy(m_bytes.data() + offset, &value, sizeof value);
        return *this;
    }
    SuperblockBytes& put(std::size_t offset, const std::string& text) {
        text.copy(m_bytes.data() + offset, text.size());
        return *this;
    }
    char* data() { return m_bytes.data(); }
    md_superblock_s* v090() { return reinterpret_cast<md_superblock_s*>(m_bytes.data()); }
    md_superblock_v1_s* v1() { return reinterpret_cast<md_superblock_v1_s*>(m_bytes.data()); }

  private:
    alignas(8) std::array<char, 4096> m_bytes{};
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
    const std::uint32_t device = 5;
    SuperblockBytes bytes;
    bytes.put(0, 0xA92B4EFCU)
        .put(4, 1U)
        .put(32, values.setName)
        .put(72, values.level)
        .put(76, values.layout)
        .put(88, values.chunkSectors)
        .put(92, values.disks)
        .put(160, device)
        .put(256 + 2 * device, static_cast<std::uint16_t>(values.role));
    return bytes;
}

inline RvpDisk makeDisk(const std::string& name, std::uint64_t start = 2048,
                        std::uint64_t sectors = 8192) {
    RvpDisk disk;
    disk.name = name;
    RvpPartition& partition = disk.partitions.emplace_back();
    partition.startSector = start;
    partition.sectorCount = sectors;
    return disk;
}

// Add the disks as members in roles 0, 1, ...
inline void addV090(RvpRaid& raid, SuperblockValues values, std::vector<RvpDisk> disks) {
    for (values.role = 0; values.role < disks.size(); ++values.role) {
        raid.addPartitionToVolume(disks[values.role], v090Bytes(values).v090());
    }
}
inline void addV1(RvpRaid& raid, SuperblockValues values, std::vector<RvpDisk> disks) {
    for (values.role = 0; values.role < disks.size(); ++values.role) {
        raid.addPartitionToVolume_v1(disks[values.role], v1Bytes(values).v1());
    }
}

inline std::vector<std::string> namesOf(const std::list<RaidSubdisk>& members) {
    std::vector<std::string> names;
    for (const RaidSubdisk& member : members) {
        names.push_back(member.disk.name);
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

// Nothing when the results are as they were preset, all of them.
inline std::optional<Mapped> mapAddress(RvpRaid& raid, RvpVolume volume, unsigned long offset,
                                        unsigned long length) {
    constexpr unsigned long PRESET = 0x5A5A5A5A5A5A5A5A;
    unsigned long memberOffset = PRESET;
    unsigned long run = PRESET;
    unsigned long start = PRESET;
    RvpDisk* disk = nullptr;
    raid.calculatePartitionRun(&volume, offset, length, memberOffset, run, &disk, &start);
    if (disk == nullptr && memberOffset == PRESET && run == PRESET && start == PRESET) {
        return std::nullopt;
    }
    return Mapped{memberOffset, run, disk == nullptr ? "" : disk->name, start};
}

// Hears the log lines and the errors that the host is told, as long as it lives.
class HostEar {
  public:
    HostEar() { Error::s_pHandler = &m_listener; }
    ~HostEar() { Error::s_pHandler = nullptr; }
    HostEar(const HostEar&) = delete;
    HostEar& operator=(const HostEar&) = delete;

    // One error of code 1 reported: raised by the operation, told to the host, logged for it and
    // once more.
    void expectReport(const std::string& function, const std::string& check) const {
        EXPECT_THAT(m_listener.heard, testing::ElementsAre(ErrorListener::Heard{
                                          "Internal error in liborma", true, 2}));
        const auto told =
            testing::MatchesRegex("log:Error <WARN> Error: 0x00000001 occured in file "
                                  "plugin/common/map_v2/rvp/RvpRaid, at line [0-9]+");
        EXPECT_THAT(lines(), testing::ElementsAre(function + ":RvpRaid <ERROR> Exception: " + check,
                                                  told, told));
    }
    std::vector<std::string> lines() const { return m_log.lines(); }
    bool heardErrors() const { return !m_listener.heard.empty(); }

  private:
    LogCapture m_log;
    ErrorListener m_listener;
};

#endif
