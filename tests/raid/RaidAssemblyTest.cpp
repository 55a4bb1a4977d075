#include "RaidTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>
#include <type_traits>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsNull;
using testing::NotNull;

static_assert(std::has_virtual_destructor_v<RvpRaid>);

namespace {

void addV1(RvpRaid& raid, const SuperblockValues& values, RvpDisk disk) {
    raid.addPartitionToVolume_v1(disk, v1Bytes(values).v1());
}

TEST(RaidAssembly, KeepsTheFieldsOfAVersion090Superblock) {
    SuperblockBytes bytes = v090Bytes({.level = 5,
                                       .layout = 3,
                                       .disks = 2,
                                       .chunkSectors = 24,
                                       .role = 1,
                                       .number = 0x80000001,
                                       .uuidWord = 0xCAFE});
    bytes.put(4, 0x1234U);
    RvpRaid raid;
    for (const char* name : {"a", "b"}) {
        RvpDisk disk = makeDisk(name);
        raid.addPartitionToVolume(disk, bytes.v090());
    }
    const RaidVolume* volume = raid.getRaidVolume(0x80000001);
    ASSERT_THAT(volume, NotNull());
    EXPECT_TRUE(volume->complete);
    EXPECT_EQ(volume->deviceName, "/dev/md-2147483647");
    EXPECT_EQ(std::tie(volume->setWord, volume->majorVersion, volume->level, volume->layout,
                       volume->raidDisks, volume->chunkSize),
              std::make_tuple(0xCAFEU, 0x1234U, 5U, 3U, 2U, 24U * 512));
    EXPECT_EQ(std::string(volume->setName, 32), std::string(32, '\0'));
    EXPECT_THAT(rolesOf(*volume), ElementsAre(1, 1));
    EXPECT_THAT(namesOf(volume->members), ElementsAre("a", "b"));
    EXPECT_THAT(volume->segments, IsEmpty());
}

TEST(RaidAssembly, KeepsTheFieldsOfAVersion10Superblock) {
    RvpRaid raid;
    // The chunk size in bytes is formed in 32 bits.
    const SuperblockValues values{
        .level = 6, .layout = 9, .disks = 2, .chunkSectors = 0x00800002, .setName = "host:4"};
    addV1(raid, values, makeDisk("a"));
    addV1(raid, values, makeDisk("b"));
    const RaidVolume* volume = raid.getRaidVolume(4);
    ASSERT_THAT(volume, NotNull());
    EXPECT_EQ(volume->deviceName, "/dev/md4");
    EXPECT_EQ(std::tie(volume->setWord, volume->majorVersion, volume->level, volume->layout,
                       volume->raidDisks, volume->chunkSize),
              std::make_tuple(0U, 1U, 6U, 9U, 2U, 1024U));
    EXPECT_STREQ(volume->setName, "host:4");
}

TEST(RaidAssembly, CopiesDisksAndMarksOnlyTheCopyOfRoleZero) {
    RvpDisk original = makeDisk("sda", 63, 1000);
    original.caller[3] = 11;
    original.callerWord = 12;
    original.callerTail[2] = 13;
    original.callerByte = 14;
    std::memcpy(original.partitions.front().lead, "ABCDEFGH", 8);
    original.partitions.push_back({{}, 5000, 6000});
    RvpDisk disk = original;

    RvpRaid raid;
    SuperblockValues values{.disks = 2, .role = 0};
    raid.addPartitionToVolume(disk, v090Bytes(values).v090());
    values.role = 1;
    raid.addPartitionToVolume(disk, v090Bytes(values).v090());
    EXPECT_EQ(std::memcmp(disk.partitions.front().lead, "ABCDEFGH", 8), 0);

    RaidVolume* volume = raid.getRaidVolume(1);
    ASSERT_THAT(volume, NotNull());
    const RvpDisk& first = volume->members.front().disk;
    EXPECT_EQ(std::tie(first.caller[3], first.callerWord, first.callerTail[2], first.callerByte),
              std::tie(original.caller[3], original.callerWord, original.callerTail[2],
                       original.callerByte));
    EXPECT_EQ(first.partitions.size(), 2U);
    EXPECT_EQ(std::memcmp(first.partitions.front().lead,
                          "AB\xFD"
                          "DEFGH",
                          8),
              0);
    const RvpDisk& second = volume->members.back().disk;
    EXPECT_EQ(std::memcmp(second.partitions.front().lead, "ABCDEFGH", 8), 0);
}

TEST(RaidAssembly, SortsMembersByRoleAndThenByArrival) {
    RvpRaid raid;
    SuperblockValues values{.disks = 6};
    const std::pair<const char*, std::uint32_t> arrivals[] = {
        {"two", 2}, {"zero", 0}, {"one", 1}, {"spare", 0xFFFE}, {"other two", 2}, {"another", 1}};
    for (const auto& [name, role] : arrivals) {
        values.role = role;
        addV1(raid, values, makeDisk(name));
    }
    const RaidVolume* volume = raid.getRaidVolume(1);
    ASSERT_THAT(volume, NotNull());
    EXPECT_THAT(rolesOf(*volume), ElementsAre(0, 1, 1, 2, 2, 0xFFFE));
    EXPECT_THAT(namesOf(volume->members),
                ElementsAre("zero", "one", "another", "two", "other two", "spare"));
}

TEST(RaidAssembly, TakesTheRoleAtTheDeviceNumberWhereThereIsOne) {
    for (const auto& [device, expected] :
         {std::pair{0U, 3U}, std::pair{1919U, 7U}, std::pair{1920U, 0xFFFFU},
          std::pair{0x80000000U, 0xFFFFU}, std::pair{0xFFFFFFFFU, 0xFFFFU}}) {
        SuperblockBytes bytes = v1Bytes({.disks = 2, .setName = "1"});
        bytes.put(160, device).put(256, std::uint16_t{3}).put(4094, std::uint16_t{7});
        RvpRaid raid;
        RvpDisk disk = makeDisk("a");
        raid.addPartitionToVolume_v1(disk, bytes.v1());
        raid.addPartitionToVolume_v1(disk, bytes.v1());
        EXPECT_THAT(rolesOf(*raid.getRaidVolume(1)), ElementsAre(expected, expected)) << device;
    }
}

TEST(RaidAssembly, IgnoresAVersion090MemberThatIsNotInSync) {
    RvpRaid raid;
    for (const std::uint32_t state : {0U, 1U, 2U, 3U, 8U, 0xFFFFFFFBU}) {
        RvpDisk disk = makeDisk("a");
        raid.addPartitionToVolume(disk, v090Bytes({.disks = 2}).put(3984, state).v090());
    }
    EXPECT_EQ(raid.getMaxArrayNumber(), 0U);
    for (const std::uint32_t state : {4U, 0xFFFFFFFFU}) {
        RvpDisk disk = makeDisk("a");
        raid.addPartitionToVolume(disk, v090Bytes({.disks = 2}).put(3984, state).v090());
    }
    ASSERT_THAT(raid.getRaidVolume(1), NotNull());
    EXPECT_EQ(raid.getRaidVolume(1)->members.size(), 2U);
}

TEST(RaidAssembly, TellsVersion090ArraysApartByTheFirstWordOfTheUuidAlone) {
    RvpRaid raid;
    SuperblockBytes first = v090Bytes({.level = 5, .disks = 2, .chunkSectors = 8, .number = 3});
    SuperblockBytes second = v090Bytes({.level = 0, .disks = 2, .chunkSectors = 16, .number = 4});
    first.put(52, 1U);
    second.put(52, 2U); // the second word
    RvpDisk disk = makeDisk("a");
    raid.addPartitionToVolume(disk, first.v090());
    raid.addPartitionToVolume(disk, second.v090());
    const RaidVolume* volume = raid.getRaidVolume(3);
    ASSERT_THAT(volume, NotNull());
    EXPECT_THAT(raid.getRaidVolume(4), IsNull());
    EXPECT_EQ(raid.getMaxArrayNumber(), 3U);
    // The array stays what its first member said, though the second one completes it at level 0.
    EXPECT_EQ(volume->level, 5U);
    EXPECT_EQ(volume->chunkSize, 8U * 512);
    EXPECT_EQ(volume->segments.size(), 1U);
}

TEST(RaidAssembly, MergesVersionsWhoseIdentifiersAreZero) {
    RvpRaid raid;
    const SuperblockValues values{.disks = 2, .number = 9, .uuidWord = 0, .setName = ""};
    RvpDisk disk = makeDisk("a");
    addV1(raid, {.disks = 2, .setName = "7"}, disk);
    raid.addPartitionToVolume(disk, v090Bytes(values).v090());
    ASSERT_THAT(raid.getRaidVolume(7), NotNull());
    EXPECT_EQ(raid.getRaidVolume(7)->members.size(), 2U);

    RvpRaid other;
    other.addPartitionToVolume(disk, v090Bytes(values).v090());
    addV1(other, values, disk);
    ASSERT_THAT(other.getRaidVolume(9), NotNull());
    EXPECT_EQ(other.getRaidVolume(9)->members.size(), 2U);
}

TEST(RaidAssembly, ComparesSetNamesAsStringsOfAtMost32Bytes) {
    const std::string full = "5---------:--------------------X";
    ASSERT_EQ(full.size(), 32U);
    RvpRaid raid;
    RvpDisk disk = makeDisk("a");
    SuperblockValues values{.disks = 2, .setName = full};
    // What follows an unterminated name is not part of it.
    raid.addPartitionToVolume_v1(disk, v1Bytes(values).put(64, 0x4141414141414141UL).v1());
    raid.addPartitionToVolume_v1(disk, v1Bytes(values).put(64, 0x4242424242424242UL).v1());
    ASSERT_THAT(raid.getRaidVolume(0U), NotNull());
    EXPECT_EQ(std::string(raid.getRaidVolume(0U)->setName, 32), full);

    // Nor is what follows the terminating zero.
    values.setName = std::string("8\0one", 5);
    addV1(raid, values, disk);
    values.setName = std::string("8\0two", 5);
    addV1(raid, values, disk);
    ASSERT_THAT(raid.getRaidVolume(8), NotNull());
    EXPECT_EQ(raid.getRaidVolume(8)->members.size(), 2U);
}

struct NamedArray {
    std::string setName;
    std::uint32_t number;
    std::string deviceName;
};

TEST(RaidAssembly, NumbersVersion10ArraysByTheirSetNames) {
    constexpr std::uint32_t NONE = 0xFFFFFFFF;
    const NamedArray arrays[] = {
        {":12", 12, "/dev/md12"},
        {"host:3", 3, "/dev/md3"},
        {"7", 7, "/dev/md7"},
        {"9lives", 9, "/dev/md9"},
        {"data", NONE, "/dev/md_data"},
        {"backup", NONE, "/dev/md_backup"},
        {"", NONE, "/dev/md_"},
        {" 5", NONE, "/dev/md_ 5"},
        {"-5", NONE, "/dev/md_-5"},
        {"host:", 0, "/dev/md0"},
        {"server1:backup", 0, "/dev/md0"},
        {"3:4:5", 4, "/dev/md4"},
        {"::6", 0, "/dev/md0"},
        {"host: +6x", 6, "/dev/md6"},
        {"h:-2", 0xFFFFFFFE, "/dev/md-2"},
        {"h:-1", NONE, "/dev/md_h:-1"},
        {"h:4294967295", NONE, "/dev/md_h:4294967295"},
        {"h:4294967301", 5, "/dev/md5"},
        {std::string(29, 'x') + ":8", 8, "/dev/md8"},
        {std::string(30, 'x') + ":8", NONE, "/dev/md_" + std::string(30, 'x') + ":8"},
        {"1" + std::string(30, 'x') + ":", 1, "/dev/md1"},
        {std::string(32, 'y'), NONE, "/dev/md_" + std::string(32, 'y')},
        {std::string("ab\0:5", 5), 5, "/dev/md5"},
    };
    for (const NamedArray& array : arrays) {
        SCOPED_TRACE(array.setName);
        RvpRaid raid;
        const SuperblockValues values{.disks = 2, .setName = array.setName};
        addV1(raid, values, makeDisk("a"));
        EXPECT_EQ(raid.getMaxArrayNumber(), array.number == NONE ? 0 : array.number);
        addV1(raid, values, makeDisk("b"));
        const RaidVolume* volume = raid.getRaidVolume(array.number);
        ASSERT_THAT(volume, NotNull());
        EXPECT_EQ(volume->deviceName, array.deviceName);
    }
}

TEST(RaidAssembly, OnlyRaisesTheHighestNumber) {
    RvpRaid raid;
    std::uint32_t word = 1;
    for (const auto& [number, highest] :
         {std::pair{5U, 5U}, std::pair{3U, 5U}, std::pair{0xF0000000U, 0xF0000000U}}) {
        addV090(raid, {.number = number, .uuidWord = word++}, {makeDisk("a")});
        EXPECT_EQ(raid.getMaxArrayNumber(), highest);
    }
    addV1(raid, {.setName = "backup"}, makeDisk("a"));
    addV1(raid, {.setName = "host:6"}, makeDisk("a"));
    EXPECT_EQ(raid.getMaxArrayNumber(), 0xF0000000U);
}

TEST(RaidAssembly, NeverCompletesAnArrayOfOneDisk) {
    RvpRaid raid;
    addV090(raid, {.disks = 1}, {makeDisk("a")});
    EXPECT_THAT(raid.getRaidVolume(1), IsNull());
    addV1(raid, {.disks = 1, .setName = "2"}, makeDisk("b"));
    EXPECT_THAT(raid.getRaidVolume(2), IsNull());
}

TEST(RaidAssembly, FindsTheFirstCompleteArrayOfALevelThatIsMapped) {
    RvpRaid raid;
    const std::vector<RvpDisk> disks{makeDisk("a"), makeDisk("b"), makeDisk("c")};
    addV090(raid, {.number = 1, .uuidWord = 1}, {disks[0], disks[1]}); // a member is missing
    addV090(raid, {.level = 7, .number = 1, .uuidWord = 2}, disks);
    EXPECT_THAT(raid.getRaidVolume(1), IsNull());
    addV090(raid, {.number = 1, .uuidWord = 3}, disks);
    addV090(raid, {.number = 1, .uuidWord = 4}, disks);
    ASSERT_THAT(raid.getRaidVolume(1), NotNull());
    EXPECT_EQ(raid.getRaidVolume(1)->setWord, 3U);

    std::uint32_t number = 100;
    for (const std::uint32_t level : {0U, 1U, 4U, 5U, 6U, 10U, 2U, 9U, 0xFFFFFFFFU}) {
        addV090(raid, {.level = level, .number = number, .uuidWord = number}, disks);
        EXPECT_EQ(raid.getRaidVolume(number) != nullptr, number < 106) << level;
        ++number;
    }
}

TEST(RaidAssembly, FindsAVolumeByDiskNameAndPartitionStart) {
    RvpRaid raid;
    addV090(raid, {.disks = 3, .uuidWord = 1}, {makeDisk("a", 5), makeDisk("c", 7)}); // incomplete
    addV090(raid, {.disks = 2, .uuidWord = 2}, {makeDisk("a", 5), makeDisk("b", 6)});
    addV090(raid, {.level = 7, .disks = 2, .uuidWord = 3}, {makeDisk("b", 6), makeDisk("", 8)});

    RvpVolume volume{"a", 5};
    EXPECT_EQ(raid.getRaidVolume(&volume)->setWord, 2U);
    volume = {"b", 6};
    EXPECT_EQ(raid.getRaidVolume(&volume)->setWord, 2U);
    volume = {"", 8}; // the level does not matter here
    EXPECT_EQ(raid.getRaidVolume(&volume)->setWord, 3U);
    const RvpVolume strangers[] = {
        {"a", 6}, {"c", 7}, {"aa", 5}, {"A", 5}, {std::string("a\0", 2), 5}, {"", 5}};
    for (RvpVolume stranger : strangers) {
        EXPECT_THROW(raid.getRaidVolume(&stranger), OrmaError) << stranger.diskName;
    }
}

// A zone's length in chunks and its members.
using Zone = std::pair<std::uint64_t, std::vector<std::string>>;

std::vector<Zone> zonesOf(RvpRaid& raid) {
    std::vector<Zone> zones;
    for (const Raid_0_Segment& segment : raid.getRaidVolume(1)->segments) {
        zones.emplace_back(segment.chunks, namesOf(segment.members));
    }
    return zones;
}

TEST(RaidAssembly, StripesUnequalMembersInZones) {
    const auto chunks = [](const char* name, std::uint64_t count) {
        return makeDisk(name, 2048, count * 8 + 7); // and a part of a chunk, which does not count
    };
    RvpRaid raid;
    addV090(raid, {.level = 0, .disks = 3}, {chunks("a", 100), chunks("b", 100), chunks("c", 60)});
    const std::vector<Zone> expected{{180, {"a", "b", "c"}}, {80, {"a", "b"}}};
    EXPECT_EQ(zonesOf(raid), expected);

    RvpRaid none;
    addV090(none, {.level = 0, .disks = 2}, {chunks("a", 0), chunks("b", 0)});
    EXPECT_THAT(zonesOf(none), IsEmpty());

    RvpRaid pairs;
    addV090(pairs, {.level = 10, .disks = 4},
            {chunks("a", 9), chunks("b", 1), chunks("c", 3), chunks("d", 0)});
    EXPECT_EQ(zonesOf(pairs), (std::vector<Zone>{{6, {"a", "c"}}, {6, {"a"}}}));

    for (const std::uint32_t count : {2U, 3U}) {
        RvpRaid unpaired;
        addV090(unpaired, {.level = 10, .disks = count},
                std::vector<RvpDisk>(count, chunks("a", 5)));
        EXPECT_THAT(zonesOf(unpaired), IsEmpty()) << count;
    }
}

TEST(RaidAssembly, LeavesACompleteArrayCompleteWhenMoreMembersCome) {
    RvpRaid raid;
    const std::vector<RvpDisk> disks{makeDisk("a"), makeDisk("b"), makeDisk("c")};
    addV090(raid, {.level = 0, .disks = 2}, disks);
    const RaidVolume* volume = raid.getRaidVolume(1);
    ASSERT_THAT(volume, NotNull());
    EXPECT_THAT(namesOf(volume->members), ElementsAre("a", "b", "c"));
    EXPECT_EQ(zonesOf(raid), (std::vector<Zone>{{2048, {"a", "b"}}}));
}

} // namespace
