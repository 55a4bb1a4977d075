// How fast RvpRaid maps addresses and assembles arrays.
//
//     raid_bench            nanoseconds a mapped address for each level, and a member added
//     raid_bench one        maps 10,000 addresses of the six-member level 5 array and nothing
//                           else, to count instructions:
//                             valgrind --tool=callgrind --callgrind-out-file=raid.callgrind
//                               --toggle-collect='RvpRaid::calculatePartitionRun*' raid_bench one
#include "RvpRaid.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::uint32_t CHUNK_SIZE = 65536;
constexpr std::uint64_t MEMBER_SECTORS = 1 << 30;
constexpr std::uint64_t PARTITION_START = 2048;
constexpr unsigned long RUN_LENGTH = 1 << 20;
constexpr std::size_t ADDRESSES = 10'000;
constexpr int REPETITIONS = 300;
constexpr int ASSEMBLIES = 9;

volatile unsigned long s_sink = 0; // keeps the results from being optimised away

double nanosecondsSince(std::chrono::steady_clock::time_point start) {
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
    return time.count();
}

RvpDisk diskNamed(const std::string& name) {
    RvpDisk disk;
    disk.name = name;
    RvpPartition& partition = disk.partitions.emplace_back();
    partition.startSector = PARTITION_START;
    partition.sectorCount = MEMBER_SECTORS;
    return disk;
}

void addMember(RvpRaid& raid, std::uint32_t array, std::uint32_t level, std::uint32_t members,
               std::uint32_t role, RvpDisk& disk) {
    static md_superblock_s superblock;
    superblock.md_magic = MD_SUPERBLOCK_MAGIC;
    superblock.set_uuid0 = array + 1;
    superblock.level = level;
    superblock.raid_disks = members;
    superblock.md_minor = array;
    superblock.layout = 2;
    superblock.chunk_size = CHUNK_SIZE;
    superblock.this_disk_raid_disk = role;
    superblock.this_disk_state = MD_DISK_IN_SYNC;
    raid.addPartitionToVolume(disk, &superblock);
}

std::unique_ptr<RvpRaid> assembleOne(std::uint32_t level, std::uint32_t members) {
    auto raid = std::make_unique<RvpRaid>();
    for (std::uint32_t role = 0; role < members; ++role) {
        RvpDisk disk = diskNamed("/dev/sd" + std::string(1, static_cast<char>('a' + role)));
        addMember(*raid, 0, level, members, role, disk);
    }
    return raid;
}

std::vector<unsigned long> randomAddresses() {
    std::mt19937_64 random(1);
    std::uniform_int_distribution<unsigned long> address(0, MEMBER_SECTORS * 512 - 1);
    std::vector<unsigned long> addresses(ADDRESSES);
    std::generate(addresses.begin(), addresses.end(), [&] { return address(random); });
    return addresses;
}

// As a reader of a large range asks: from chunk to chunk.
std::vector<unsigned long> sequentialAddresses() {
    std::vector<unsigned long> addresses(ADDRESSES);
    std::generate(addresses.begin(), addresses.end(),
                  [address = 0UL]() mutable { return address += CHUNK_SIZE; });
    return addresses;
}

// Nanoseconds a call.
double mapAll(RvpRaid& raid, RvpVolume& volume, const std::vector<unsigned long>& addresses) {
    unsigned long sum = 0;
    const auto start = std::chrono::steady_clock::now();
    for (const unsigned long address : addresses) {
        unsigned long memberOffset = 0;
        unsigned long run = 0;
        unsigned long partitionStart = 0;
        RvpDisk* disk = nullptr;
        raid.calculatePartitionRun(&volume, address, RUN_LENGTH, memberOffset, run, &disk,
                                   &partitionStart);
        sum += memberOffset + run + partitionStart;
    }
    const double time = nanosecondsSince(start) / static_cast<double>(addresses.size());
    s_sink = s_sink + sum;
    return time;
}

void benchMapping(const char* what, std::uint32_t level, std::uint32_t members,
                  const char* volumeDisk) {
    const auto raid = assembleOne(level, members);
    RvpVolume volume{volumeDisk, PARTITION_START};
    const std::vector<unsigned long> scattered = randomAddresses();
    const std::vector<unsigned long> inOrder = sequentialAddresses();
    double bestScattered = mapAll(*raid, volume, scattered);
    double bestInOrder = mapAll(*raid, volume, inOrder);
    for (int i = 1; i < REPETITIONS; ++i) {
        bestScattered = std::min(bestScattered, mapAll(*raid, volume, scattered));
        bestInOrder = std::min(bestInOrder, mapAll(*raid, volume, inOrder));
    }
    std::printf("map  %-44s %6.1f ns a call at random, %6.1f ns in order\n", what, bestScattered,
                bestInOrder);
}

// Members arrive disk by disk, every array's first member before any second one. Nanoseconds.
double assemble(std::uint32_t arrays, std::uint32_t members) {
    RvpDisk disk = diskNamed("/dev/sda");
    RvpRaid raid;
    const auto start = std::chrono::steady_clock::now();
    for (std::uint32_t role = members; role-- > 0;) {
        for (std::uint32_t array = 0; array < arrays; ++array) {
            addMember(raid, array, 0, members, role, disk);
        }
    }
    return nanosecondsSince(start);
}

void benchAssembly(std::uint32_t arrays, std::uint32_t members) {
    double time = assemble(arrays, members);
    for (int i = 1; i < ASSEMBLIES; ++i) {
        time = std::min(time, assemble(arrays, members));
    }
    std::printf("add  %5u level 0 arrays of %u members %14.2f ms, %7.0f ns a member\n", arrays,
                members, time / 1e6, time / (arrays * members));
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "one") == 0) {
        const auto raid = assembleOne(5, 6);
        RvpVolume volume{"/dev/sda", PARTITION_START};
        mapAll(*raid, volume, randomAddresses());
        return 0;
    }
    benchMapping("level 5, 6 members, volume on the first", 5, 6, "/dev/sda");
    benchMapping("level 5, 6 members, volume on the last", 5, 6, "/dev/sdf");
    benchMapping("level 0, 6 members", 0, 6, "/dev/sda");
    benchMapping("level 1, 2 members", 1, 2, "/dev/sda");
    benchMapping("level 4, 6 members", 4, 6, "/dev/sda");
    benchMapping("level 6, 6 members", 6, 6, "/dev/sda");
    benchMapping("level 10, 6 members", 10, 6, "/dev/sda");
    for (const std::uint32_t arrays : {250U, 500U, 1000U, 2000U}) {
        benchAssembly(arrays, 8);
    }
    return 0;
}
