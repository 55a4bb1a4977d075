// Addresses that cannot be mapped, and the small print of those that can.
#include "RaidTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::uint32_t START = 2048;
constexpr std::uint32_t NO_ROLE = 99;

// The array's members are called a, b, c and d.
RaidVolume& assemble(RvpRaid& raid, const SuperblockValues& values) {
    std::vector<RvpDisk> disks;
    for (std::uint32_t i = 0; i < values.disks; ++i) {
        disks.push_back(makeDisk({static_cast<char>('a' + i)}, START));
    }
    addV090(raid, values, disks);
    RvpVolume volume{"a", START};
    return *raid.getRaidVolume(&volume);
}

void takeAway(RaidVolume& volume, std::uint32_t role) {
    for (RaidSubdisk& member : volume.members) {
        member.role += member.role == role ? 100 : 0;
    }
}

TEST(RaidError, IsReportedAndChangesNothing) {
    const struct {
        SuperblockValues array;
        std::uint32_t missingRole;
        unsigned long offset;
        const char* function;
    } cases[] = {
        {{.level = 7}, NO_ROLE, 0, "calculatePartitionRun"},
        {{.level = 5, .layout = 4}, NO_ROLE, 0, "calculateRaid5PartitionRun"},
        {{.level = 5}, 1, 4096, "calculateRaid5PartitionRun"},
        {{.level = 6, .layout = 4}, NO_ROLE, 0, "calculateRaid6PartitionRun"},
        {{.level = 6}, 1, 0, "calculateRaid6PartitionRun"},
        {{.level = 0}, NO_ROLE, 3 * 8192 * 512, "getChunkOffset"},
        {{.level = 10}, NO_ROLE, 0, "getChunkOffset"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.function + std::to_string(one.array.layout));
        RvpRaid raid;
        takeAway(assemble(raid, one.array), one.missingRole);
        const HostEar ear;
        EXPECT_EQ(mapAddress(raid, {"a", START}, one.offset, 4096), std::nullopt);
        ear.expectReport(one.function, "VERIFY_ORMA");
    }
}

TEST(RaidError, OfAnUnknownVolumeReachesTheCaller) {
    RvpRaid raid;
    const HostEar ear;
    EXPECT_THROW(mapAddress(raid, {"a", START}, 0, 512), OrmaError);
    EXPECT_THAT(ear.lines(), ElementsAre("getRaidVolume:RvpRaid <ERROR> Exception: VERIFY_ORMA"));
    EXPECT_FALSE(ear.heardErrors());
}

TEST(RaidError, Level4KeepsSilentAboutAMissingMember) {
    RvpRaid raid;
    takeAway(assemble(raid, {.level = 4}), 0);
    const HostEar ear;
    EXPECT_EQ(mapAddress(raid, {"a", START}, 0, 4096), std::nullopt);
    EXPECT_EQ(mapAddress(raid, {"a", START}, 4096, 4096), (Mapped{0, 4096, "b", START}));
    EXPECT_THAT(ear.lines(), IsEmpty());
}

TEST(RaidError, PastTheLastSegmentCountsTheChunksOfAMember) {
    RvpRaid raid;
    addV090(raid, {.level = 0, .disks = 2}, {makeDisk("a", START, 80), makeDisk("b", START, 240)});
    unsigned long memberChunk = 77;
    unsigned long start = 77;
    RvpDisk* disk = nullptr;
    const HostEar ear;
    EXPECT_THROW(raid.getChunkOffset(*raid.getRaidVolume(1), 40, memberChunk, &disk, &start),
                 OrmaError);
    EXPECT_EQ(memberChunk, 30U);
    EXPECT_EQ(disk, nullptr);
    EXPECT_EQ(start, 77U);
}

TEST(RaidRun, EndsWithTheChunkAndDropsPartsOfSectors) {
    RvpRaid raid;
    assemble(raid, {.level = 5, .layout = 2, .chunkSectors = 8});
    const auto map = [&](unsigned long offset, unsigned long length) {
        return mapAddress(raid, {"c", START}, offset, length);
    };
    EXPECT_EQ(map(0, 1 << 20), (Mapped{0, 4096, "a", START}));
    EXPECT_EQ(map(0, 100), (Mapped{0, 0, "a", START}));
    EXPECT_EQ(map(511, 1023), (Mapped{0, 512, "a", START}));
    EXPECT_EQ(map(3 * 512 + 1, 99999), (Mapped{3 * 512, 5 * 512, "a", START}));

    // A mirror has neither, and needs no chunk size.
    for (const std::uint32_t level : {1U, 10U}) {
        RvpRaid mirror;
        assemble(mirror, {.level = level, .disks = 2, .chunkSectors = 0});
        EXPECT_EQ(mapAddress(mirror, {"b", START}, 1001, 12345), (Mapped{1001, 12345, "a", START}));
    }
}

// The counts of disks next to n are formed in 32 bits, where they wrap; everything else in 64.
TEST(RaidRun, FormsDiskCountsIn32Bits) {
    RvpRaid raid;
    RaidVolume& volume = assemble(raid, {.level = 5, .layout = 3, .chunkSectors = 1});
    unsigned long memberOffset = 0;
    unsigned long run = 0;
    unsigned long start = 0;
    RvpDisk* disk = nullptr;
    // Stripe 1, data chunk 0: n + 1 is 0, so that the role is 1 and not 2.
    volume.raidDisks = 0xFFFFFFFF;
    raid.calculateRaid5PartitionRun(volume, 0xFFFFFFFEUL * 512, 512, memberOffset, run, &disk,
                                    &start);
    EXPECT_EQ(disk->name, "b");
    EXPECT_EQ(memberOffset, 512U);

    // One disk at level 6: n - 2 is 0xFFFFFFFF data disks.
    volume.raidDisks = 1;
    volume.layout = 0;
    raid.calculateRaid6PartitionRun(volume, 512, 512, memberOffset, run, &disk, &start);
    EXPECT_EQ(disk->name, "c");
    EXPECT_EQ(memberOffset, 0U);
}

} // namespace
