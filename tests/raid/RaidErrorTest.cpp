// Addresses that cannot be mapped, and the small print of those that can.
#include "RaidLayout.h"
#include "RaidTesting.h"

#include <gtest/gtest.h>

namespace {

const std::vector<RvpDisk> DISKS{makeDisk("a"), makeDisk("b"), makeDisk("c")};

TEST(RaidError, IsReportedAndNotThrown) {
    const struct {
        SuperblockValues array;
        unsigned long offset;
        const char* function;
    } cases[] = {
        {{.level = 7}, 0, "calculatePartitionRun"},
        {{.level = 4, .role = 1}, 0, nullptr}, // keeps silent about a missing member
        {{.level = 5, .layout = 4}, 0, "calculateRaid5PartitionRun"},
        {{.level = 5, .role = 1}, 0, "calculateRaid5PartitionRun"}, // without role 0
        {{.level = 6, .layout = 4}, 0, "calculateRaid6PartitionRun"},
        {{.level = 6, .role = 1}, 4096, "calculateRaid6PartitionRun"},
        {{.level = 0}, 3 * 8192 * 512, "getChunkOffset"},
        {{.level = 10}, 0, "getChunkOffset"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.array.level);
        RvpRaid raid;
        addMembers(raid, one.array, DISKS);
        const LogCapture log;
        EXPECT_EQ(mapAddress(raid, {"a", 2048}, one.offset, 4096), std::nullopt);
        if (one.function == nullptr) {
            EXPECT_THAT(log.lines(), testing::IsEmpty());
        } else {
            expectReport(log, one.function, "VERIFY_ORMA");
        }
    }
}

TEST(RaidRun, OfAMirrorKeepsPartsOfSectorsAndNeedsNoChunkSize) {
    for (const std::uint32_t level : {1U, 10U}) {
        RvpRaid raid;
        addMembers(raid, {.level = level, .disks = 2, .chunkSectors = 0}, {DISKS[0], DISKS[1]});
        EXPECT_EQ(mapAddress(raid, {"a", 2048}, 1001, 12345), (Mapped{1001, 12345, "a", 2048}));
    }
}

// The counts of disks next to n are formed in 32 bits: here n + 1 is 0.
TEST(RaidRun, WrapsDiskCounts) {
    EXPECT_EQ(raid5Role(3, 0xFFFFFFFF, ParityPlace(0xFFFFFFFE, 0xFFFFFFFE)), 1U);
    EXPECT_EQ(raid6Role(3, 0xFFFFFFFF, ParityPlace(2 * 0xFFFFFFFDUL, 0xFFFFFFFD)), 2U);
}

} // namespace
