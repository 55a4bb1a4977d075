// Addresses that cannot be mapped, and the small print of those that can.
#include "RaidTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::uint32_t START = 2048;

std::vector<RvpDisk> disksNamed(const std::string& letters) {
    std::vector<RvpDisk> disks;
    for (const char letter : letters) {
        disks.push_back(makeDisk(std::string(1, letter), START));
    }
    return disks;
}

RaidVolume& arrayOf(RvpRaid& raid) {
    RvpVolume volume{"a", START};
    return *raid.getRaidVolume(&volume);
}

using LevelRun = void (RvpRaid::*)(RaidVolume&, unsigned long, unsigned long, unsigned long&,
                                   unsigned long&, RvpDisk**, unsigned long*);

struct FailingCase {
    const char* what;
    std::uint32_t level;
    std::uint32_t layout;
    std::size_t members;
    std::uint32_t missingRole; // no member has it; 99 for none
    unsigned long offset;
    const char* function;
    LevelRun run;
};

constexpr FailingCase FAILING_CASES[] = {
    {"unknown level", 7, 0, 3, 99, 0, "calculatePartitionRun", nullptr},
    {"level 5, layout 4", 5, 4, 3, 99, 0, "calculateRaid5PartitionRun",
     &RvpRaid::calculateRaid5PartitionRun},
    {"level 5, layout 7", 5, 7, 3, 99, 0, "calculateRaid5PartitionRun",
     &RvpRaid::calculateRaid5PartitionRun},
    {"level 5, member missing", 5, 2, 3, 1, 4096, "calculateRaid5PartitionRun",
     &RvpRaid::calculateRaid5PartitionRun},
    {"level 6, layout 4", 6, 4, 4, 99, 0, "calculateRaid6PartitionRun",
     &RvpRaid::calculateRaid6PartitionRun},
    {"level 6, member missing", 6, 2, 4, 1, 0, "calculateRaid6PartitionRun",
     &RvpRaid::calculateRaid6PartitionRun},
    {"level 0, past the end", 0, 0, 2, 99, 2 * 8192 * 512, "getChunkOffset",
     &RvpRaid::calculateStripePartitionRun},
    {"level 10, odd members", 10, 0, 3, 99, 0, "getChunkOffset",
     &RvpRaid::calculateRaid10PartitionRun},
};

void assemble(RvpRaid& raid, const FailingCase& one) {
    addV090(raid,
            {.level = one.level,
             .layout = one.layout,
             .disks = static_cast<std::uint32_t>(one.members)},
            disksNamed(std::string("abcd").substr(0, one.members)));
    for (RaidSubdisk& member : arrayOf(raid).members) {
        member.role += member.role == one.missingRole ? 100 : 0;
    }
}

TEST(RaidError, IsReportedByTheEntryAndLeavesTheResults) {
    for (const FailingCase& one : FAILING_CASES) {
        SCOPED_TRACE(one.what);
        RvpRaid raid;
        assemble(raid, one);
        HostEar ear;
        EXPECT_EQ(mapAddress(raid, {"a", START}, one.offset, 4096), std::nullopt);
        EXPECT_THAT(ear.errors, ElementsAre("Internal error in liborma (2)"));
        const auto told = ContainsRegex("log:Error:[0-9]+ <WARN> : Error: 0x00000001 occured in "
                                        "file plugin/common/map_v2/rvp/RvpRaid, at line [0-9]+\n");
        EXPECT_THAT(ear.lines, ElementsAre(ContainsRegex(std::string(one.function) +
                                                         ":RvpRaid:[0-9]+ <ERROR> : "
                                                         "Exception: VERIFY_ORMA\n"),
                                           told, told));
    }
}

TEST(RaidError, LeavesTheOperationsOfALevel) {
    for (const FailingCase& one : FAILING_CASES) {
        if (one.run == nullptr) {
            continue;
        }
        SCOPED_TRACE(one.what);
        RvpRaid raid;
        assemble(raid, one);
        HostEar ear;
        unsigned long memberOffset = 77;
        unsigned long run = 77;
        unsigned long start = 77;
        RvpDisk* disk = nullptr;
        try {
            (raid.*one.run)(arrayOf(raid), one.offset, 4096, memberOffset, run, &disk, &start);
            ADD_FAILURE() << "no error";
        } catch (const OrmaError& error) {
            EXPECT_EQ(error.m_code, 1);
            EXPECT_STREQ(error.m_file, "plugin/common/map_v2/rvp/RvpRaid");
            EXPECT_STREQ(error.m_function, one.function);
        }
        EXPECT_EQ(disk, nullptr);
        EXPECT_THAT((std::array{memberOffset, run, start}), ElementsAre(77, 77, 77));
        EXPECT_EQ(ear.lines.size(), 1U);
    }
}

TEST(RaidError, OfAnUnknownVolumeReachesTheCaller) {
    RvpRaid raid;
    HostEar ear;
    try {
        mapAddress(raid, {"a", START}, 0, 512);
        FAIL() << "no error";
    } catch (const OrmaError& error) {
        EXPECT_EQ(error.m_code, 1);
        EXPECT_STREQ(error.m_file, "plugin/common/map_v2/rvp/RvpRaid");
        EXPECT_STREQ(error.m_function, "getRaidVolume");
    }
    EXPECT_THAT(ear.errors, IsEmpty());
    EXPECT_THAT(ear.lines, ElementsAre(ContainsRegex("getRaidVolume:RvpRaid:[0-9]+ <ERROR> : "
                                                     "Exception: VERIFY_ORMA\n")));
}

TEST(RaidError, Level4KeepsSilentAboutAMissingMember) {
    RvpRaid raid;
    addV090(raid, {.level = 4, .disks = 3}, disksNamed("abc"));
    arrayOf(raid).members.front().role = 100;
    HostEar ear;
    EXPECT_EQ(mapAddress(raid, {"a", START}, 0, 4096), std::nullopt);
    EXPECT_EQ(mapAddress(raid, {"a", START}, 4096, 4096), (Mapped{0, 4096, "b", START}));
    EXPECT_THAT(ear.lines, IsEmpty());
    EXPECT_THAT(ear.errors, IsEmpty());
}

TEST(RaidError, PastTheLastSegmentCountsTheChunksOfAMember) {
    RvpRaid raid;
    addV090(raid, {.level = 0, .disks = 2}, {makeDisk("a", START, 80), makeDisk("b", START, 240)});
    unsigned long memberChunk = 77;
    unsigned long start = 77;
    RvpDisk* disk = nullptr;
    EXPECT_THROW(raid.getChunkOffset(arrayOf(raid), 40, memberChunk, &disk, &start), OrmaError);
    EXPECT_EQ(memberChunk, 30U);
    EXPECT_EQ(disk, nullptr);
    EXPECT_EQ(start, 77U);
    raid.getChunkOffset(arrayOf(raid), 39, memberChunk, &disk, &start);
    EXPECT_EQ(memberChunk, 29U);
    EXPECT_EQ(disk, &arrayOf(raid).segments.back().members.front().disk);
}

TEST(RaidRun, EndsWithTheChunkAndDropsPartsOfSectors) {
    RvpRaid raid;
    addV090(raid, {.level = 5, .layout = 2, .disks = 3, .chunkSectors = 8}, disksNamed("abc"));
    const auto map = [&](unsigned long offset, unsigned long length) {
        return mapAddress(raid, {"c", START}, offset, length);
    };
    EXPECT_EQ(map(0, 1 << 20), (Mapped{0, 4096, "a", START}));
    EXPECT_EQ(map(0, 100), (Mapped{0, 0, "a", START}));
    EXPECT_EQ(map(511, 1023), (Mapped{0, 512, "a", START}));
    EXPECT_EQ(map(3 * 512 + 1, 99999), (Mapped{3 * 512, 5 * 512, "a", START}));
    EXPECT_EQ(map(8 * 512, 512), (Mapped{0, 512, "b", START}));
    EXPECT_EQ(map(16 * 512, 512), (Mapped{4096, 512, "c", START}));
    EXPECT_EQ(map(24 * 512, 512), (Mapped{4096, 512, "a", START}));
    EXPECT_EQ(arrayOf(raid).members.back().disk.name, "c");

    // A mirror has neither.
    for (const std::uint32_t level : {1U, 10U}) {
        RvpRaid mirror;
        addV090(mirror, {.level = level, .disks = 2, .chunkSectors = 0}, disksNamed("ab"));
        EXPECT_EQ(mapAddress(mirror, {"b", START}, 1001, 12345), (Mapped{1001, 12345, "a", START}));
    }
}

// The counts of disks next to n are formed in 32 bits, where they wrap; everything else in 64.
TEST(RaidRun, FormsDiskCountsIn32Bits) {
    RvpRaid raid;
    addV090(raid, {.level = 5, .layout = 3, .disks = 2, .chunkSectors = 1}, disksNamed("ab"));
    RaidVolume& array = arrayOf(raid);
    array.raidDisks = 0xFFFFFFFF;
    unsigned long memberOffset = 0;
    unsigned long run = 0;
    unsigned long start = 0;
    RvpDisk* disk = nullptr;
    // Stripe 1, data chunk 0: n + 1 is 0, so that the role is 1 and not 2.
    const unsigned long offset = 0xFFFFFFFEUL * 512;
    raid.calculateRaid5PartitionRun(array, offset, 512, memberOffset, run, &disk, &start);
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->name, "b");
    EXPECT_EQ(memberOffset, 512U);

    // One disk at level 6: n - 2 is 0xFFFFFFFF data disks.
    array.raidDisks = 1;
    array.layout = 0;
    disk = nullptr;
    raid.calculateRaid6PartitionRun(array, 0, 512, memberOffset, run, &disk, &start);
    ASSERT_NE(disk, nullptr);
    EXPECT_EQ(disk->name, "b"); // v = n - 1 = 0, so that chunk 0 has role 1
    EXPECT_EQ(memberOffset, 0U);
}

} // namespace
