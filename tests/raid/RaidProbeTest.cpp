#include "RaidTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

using testing::ElementsAre;

namespace {

// A disk that holds superblocks at some sectors and zeros elsewhere, and notes what is read.
struct ProbedDisk {
    std::map<unsigned long, SuperblockBytes> blocks;
    std::size_t failingRead = 0; // counted from 1; 0 for none
    std::vector<unsigned long> sectors;
    RvpDisk* expectedDisk = nullptr;

    static bool read(void* context, RvpDisk& disk, unsigned long sector, unsigned long count,
                     char* buffer) {
        auto& probed = *static_cast<ProbedDisk*>(context);
        EXPECT_EQ(&disk, probed.expectedDisk);
        EXPECT_EQ(count, 8U);
        probed.sectors.push_back(sector);
        std::memset(buffer, 0, 4096);
        if (const auto found = probed.blocks.find(sector); found != probed.blocks.end()) {
            std::memcpy(buffer, found->second.data(), 4096);
        }
        return probed.sectors.size() != probed.failingRead;
    }

    void probe(RvpRaid& raid, RvpDisk disk) {
        expectedDisk = &disk;
        sectors.clear();
        raid.addMbrPartition(disk, read, this);
    }
};

TEST(RaidProbe, ReadsBothPlacesOfThePartition) {
    const struct {
        std::uint64_t start, length, v090, v10;
    } cases[] = {
        {2048, 1'000'000, 1'001'856, 1'002'032},
        {0, 128, 0, 112},
        {5, 255, 5, 5 + 232},
        {5, 256, 5 + 128, 5 + 240},
        {100, 263, 228, 340},
        {7, 1UL << 60, 7 + (1UL << 60) - 128, 7 + (1UL << 60) - 16},
        // Too short: the places wrap below zero.
        {0, 127, -128UL, 104},
        {100, 15, 100 - 128UL, 100 - 8UL},
        {2048, 0, 1920, 2032},
    };
    for (const auto& one : cases) {
        RvpRaid raid;
        ProbedDisk probed;
        RvpDisk disk = makeDisk("a", one.start, one.length);
        disk.partitions.push_back({{}, 7000, 256}); // not looked at
        probed.probe(raid, disk);
        EXPECT_THAT(probed.sectors, ElementsAre(one.v090, one.v10)) << one.length;
    }
}

TEST(RaidProbe, LooksForVersion10OnlyWithoutVersion090) {
    RvpRaid raid;
    ProbedDisk probed;
    probed.blocks[1'001'856] = v090Bytes({.disks = 1, .number = 3});
    probed.blocks[1'002'032] = v1Bytes({.disks = 1, .setName = "4"});
    for (const std::size_t reads : {1U, 2U}) {
        probed.probe(raid, makeDisk("a", 2048, 1'000'000));
        EXPECT_EQ(probed.sectors.size(), reads);
        EXPECT_EQ(raid.getMaxArrayNumber(), reads == 1 ? 3U : 4U);
        probed.blocks[1'001'856].put(0, 0xFC4E2BA9U); // other data at the place of 0.90
    }
}

TEST(RaidProbe, ReportsARefusedReadAndChangesNothing) {
    for (const std::size_t failing : {1U, 2U}) {
        HostEar ear;
        RvpRaid raid;
        ProbedDisk probed;
        probed.failingRead = failing;
        // What a refused read left in the buffer does not count.
        probed.blocks[failing == 1 ? 1920 : 2032] = v1Bytes({.setName = "5"});
        probed.probe(raid, makeDisk("a", 2048, 0));
        EXPECT_EQ(probed.sectors.size(), failing);
        EXPECT_EQ(raid.getMaxArrayNumber(), 0U);
        ear.expectReport("addMbrPartition", "VERIFY_ORMA_BOOL");
    }
}

} // namespace
