#include "RaidTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

using testing::ElementsAre;

namespace {

// A disk that holds superblocks at some sectors and zeros elsewhere, and notes what is read.
struct ProbedDisk {
    RvpDisk disk;
    std::map<unsigned long, SuperblockBytes> blocks = {};
    std::size_t refusedRead = 0; // counted from 1; it has filled the buffer all the same
    std::vector<unsigned long> sectors = {};

    static bool read(void* context, RvpDisk& disk, unsigned long sector, unsigned long count,
                     char* buffer) {
        auto& probed = *static_cast<ProbedDisk*>(context);
        EXPECT_EQ(&disk, &probed.disk);
        EXPECT_EQ(count, 8U);
        probed.sectors.push_back(sector);
        std::memcpy(buffer, probed.blocks[sector].data(), 4096);
        return probed.sectors.size() != probed.refusedRead;
    }

    void probe(RvpRaid& raid) {
        sectors.clear();
        raid.addMbrPartition(disk, read, this);
    }
};

TEST(RaidProbe, ReadsBothPlacesOfThePartition) {
    const struct {
        std::uint64_t start, length, v090, v10;
    } cases[] = {
        {2048, 1'000'000, 1'001'856, 1'002'032},
        {5, 255, 5, 5 + 232},
        {5, 256, 5 + 128, 5 + 240},
        {7, 1UL << 60, 7 + (1UL << 60) - 128, 7 + (1UL << 60) - 16},
        // Too short: the places wrap below zero.
        {0, 127, -128UL, 104},
        {100, 15, 100 - 128UL, 100 - 8UL},
    };
    for (const auto& one : cases) {
        RvpRaid raid;
        ProbedDisk probed{makeDisk("a", one.start, one.length)};
        probed.disk.partitions.push_back({{}, 7000, 256}); // not looked at
        probed.probe(raid);
        EXPECT_THAT(probed.sectors, ElementsAre(one.v090, one.v10)) << one.length;
    }
}

TEST(RaidProbe, LooksForVersion10OnlyWithoutVersion090) {
    RvpRaid raid;
    ProbedDisk probed{makeDisk("a", 2048, 1'000'000)};
    probed.blocks[1'001'856] = v090Bytes({.disks = 1, .number = 3});
    probed.blocks[1'002'032] = v1Bytes({.disks = 1, .setName = "4"});
    for (const std::size_t place : {1U, 2U}) {
        const LogCapture log;
        const unsigned before = raid.getMaxArrayNumber();
        probed.refusedRead = place;
        probed.probe(raid);
        EXPECT_EQ(probed.sectors.size(), place);
        EXPECT_EQ(raid.getMaxArrayNumber(), before);
        expectReport(log, "addMbrPartition", "VERIFY_ORMA_BOOL");

        probed.refusedRead = 0;
        probed.probe(raid);
        EXPECT_EQ(probed.sectors.size(), place);
        EXPECT_EQ(raid.getMaxArrayNumber(), 2 + place);
        probed.blocks[1'001'856].put(0, 0xFC4E2BA9U); // other data at the place of 0.90
    }
}

} // namespace
