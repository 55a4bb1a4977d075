#include "Error.h"
#include "RaidTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

namespace {

constexpr std::uint32_t NONE = 0xFFFFFFFF;

const std::vector<RvpDisk> PAIR{makeDisk("a"), makeDisk("b")};

TEST(RaidAssembly, KeepsTheFieldsOfASuperblock) {
    const auto fieldsOf = [](const RaidVolume& volume) {
        return std::tuple(volume.complete, volume.arrayNumber, volume.deviceName, volume.setWord,
                          volume.majorVersion, volume.level, volume.layout, volume.raidDisks,
                          volume.chunkSize, std::string(volume.setName, 32));
    };
    RvpRaid raid;
    addMembers(raid, {.level = 5, .layout = 3, .disks = 2, .number = 0x80000001}, PAIR);
    EXPECT_EQ(fieldsOf(*raid.getRaidVolume(0x80000001)),
              std::tuple(true, 0x80000001, "/dev/md-2147483647", 0x77, 0, 5, 3, 2, 8 * 512,
                         std::string(32, '\0')));
    // The chunk size in bytes is formed in 32 bits; stripes without one have no segments.
    addMembers(raid, {.level = 0, .disks = 2, .chunkSectors = 1 << 23, .isV1 = true}, PAIR);
    EXPECT_EQ(fieldsOf(*raid.getRaidVolume(1)),
              std::tuple(true, 1, "/dev/md1", 0, 1, 0, 2, 2, 0, "host:1" + std::string(26, '\0')));
}

TEST(RaidAssembly, CopiesDisksAndMarksOnlyTheCopyOfRoleZero) {
    const auto leadOf = [](const RvpDisk& disk) {
        return std::string(reinterpret_cast<const char*>(disk.partitions.front().lead), 8);
    };
    RvpDisk disk = makeDisk("a");
    std::memcpy(disk.partitions.front().lead, "ABCDEFGH", 8);
    RvpRaid raid;
    raid.addPartitionToVolume(disk, v090Bytes({.disks = 2, .role = 0}).v090());
    raid.addPartitionToVolume(disk, v090Bytes({.disks = 2, .role = 1}).v090());
    const RaidVolume& volume = *raid.getRaidVolume(1);
    EXPECT_EQ(leadOf(volume.members.front().disk), std::string("AB\xFD") + "DEFGH");
    EXPECT_EQ(leadOf(volume.members.back().disk), "ABCDEFGH");
    EXPECT_EQ(leadOf(disk), "ABCDEFGH");
}

TEST(RaidAssembly, SortsMembersByRoleAndThenByArrival) {
    RvpRaid raid;
    for (const auto& [name, role] :
         {std::pair{"two", 2U}, {"zero", 0U}, {"one", 1U}, {"other", 2U}, {"another", 1U}}) {
        addMember(raid, {.level = 0, .disks = 5, .role = role, .isV1 = true}, makeDisk(name));
    }
    // One that comes late has no part in the segments, even if it counts itself.
    addMember(raid, {.level = 0, .disks = 6, .role = 0xFFFE, .isV1 = true}, makeDisk("late"));
    RaidVolume& volume = *raid.getRaidVolume(1);
    EXPECT_EQ(namesOf(volume.members), "zero one another two other late ");
    ASSERT_EQ(volume.segments.size(), 1U);
    EXPECT_EQ(namesOf(volume.segments.front().members), "zero one another two other ");
    // Past the last segment, the chunks of all segments on a member are counted.
    unsigned long memberChunk = 77;
    EXPECT_THROW(raid.getChunkOffset(volume, 5 * 1024, memberChunk, nullptr, nullptr), OrmaError);
    EXPECT_EQ(memberChunk, 1024U);
}

TEST(RaidAssembly, TakesTheRoleAtTheDeviceNumberWhereThereIsOne) {
    for (const auto& [device, role] : {std::pair{0U, 3U}, {1919U, 7U}, {1920U, 0xFFFFU}}) {
        SuperblockBytes bytes = v1Bytes({.disks = 2});
        bytes.put(160, device).put(256, std::uint16_t{3}).put(4094, std::uint16_t{7});
        RvpRaid raid;
        RvpDisk disk = makeDisk("a");
        raid.addPartitionToVolume_v1(disk, bytes.v1());
        raid.addPartitionToVolume_v1(disk, bytes.v1());
        EXPECT_EQ(raid.getRaidVolume(1)->members.front().role, role) << device;
    }
}

TEST(RaidAssembly, IgnoresAVersion090MemberThatIsNotInSync) {
    for (const std::uint32_t state : {0U, 3U, 0xFFFFFFFBU, 4U, 0xFFFFFFFFU}) {
        RvpRaid raid;
        RvpDisk disk = makeDisk("a");
        raid.addPartitionToVolume(disk, v090Bytes({.disks = 2}).put(3984, state).v090());
        EXPECT_EQ(raid.getMaxArrayNumber(), state >> 2 & 1) << state;
    }
}

TEST(RaidAssembly, ComparesNothingButTheIdentifier) {
    RvpRaid raid;
    RvpDisk disk = makeDisk("a");
    // The same first word of the UUID, another second one, and other values.
    raid.addPartitionToVolume(disk, v090Bytes({.disks = 2, .number = 3}).put(52, 1U).v090());
    addMember(raid, {.level = 0, .disks = 2, .number = 4}, disk);
    EXPECT_EQ(raid.getMaxArrayNumber(), 3U);
    // The array stays what its first member said, though the second one completes it at level 0.
    EXPECT_EQ(raid.getRaidVolume(3)->level, 5U);
    EXPECT_EQ(raid.getRaidVolume(3)->segments.size(), 1U);

    // A UUID that starts with zero meets an array of version 1.0, which has none, and an empty set
    // name one of version 0.90.
    addMember(raid, {.disks = 2, .setName = "7", .isV1 = true}, disk);
    addMember(raid, {.disks = 2, .uuidWord = 0}, disk);
    EXPECT_EQ(raid.getRaidVolume(7)->members.size(), 2U);
    addMember(raid, {.disks = 2, .setName = "", .isV1 = true}, disk);
    EXPECT_EQ(raid.getRaidVolume(3)->members.size(), 3U);
}

TEST(RaidAssembly, ComparesSetNamesAsStringsOfAtMost32Bytes) {
    const std::string name = "5" + std::string(30, '-');
    const std::tuple<std::string, std::string, bool> cases[] = {
        {name + "A", name + "AB", true},
        {name + "A", name + "B", false},
        {std::string("5\0A", 3), std::string("5\0B", 3), true}};
    for (const auto& [one, other, isSame] : cases) {
        RvpRaid raid;
        addMember(raid, {.disks = 2, .setName = one, .isV1 = true}, PAIR[0]);
        addMember(raid, {.disks = 2, .setName = other, .isV1 = true}, PAIR[1]);
        EXPECT_EQ(raid.getRaidVolume(5) != nullptr, isSame) << other;
    }
}

TEST(RaidAssembly, NumbersVersion10ArraysByTheirSetNames) {
    const struct {
        std::string setName;
        std::uint32_t number;
        std::string deviceName;
    } arrays[] = {
        {":12", 12, "/dev/md12"},
        {"9lives", 9, "/dev/md9"},
        {"backup", NONE, "/dev/md_backup"},
        {"", NONE, "/dev/md_"},
        {"server1:backup", 0, "/dev/md0"},
        {"3:4:5", 4, "/dev/md4"},
        {"h:-1", NONE, "/dev/md_h:-1"},
        {"h:4294967301", 5, "/dev/md5"},
        {std::string(29, 'x') + ":8", 8, "/dev/md8"},
        {std::string(30, 'x') + ":8", NONE, "/dev/md_" + std::string(30, 'x') + ":8"},
        {std::string("ab\0:5", 5), 5, "/dev/md5"},
    };
    for (const auto& array : arrays) {
        RvpRaid raid;
        addMembers(raid, {.disks = 2, .setName = array.setName, .isV1 = true}, PAIR);
        const RaidVolume* volume = raid.getRaidVolume(array.number);
        ASSERT_NE(volume, nullptr) << array.setName;
        EXPECT_EQ(volume->deviceName, array.deviceName);
        EXPECT_EQ(raid.getMaxArrayNumber(), array.number == NONE ? 0 : array.number);
    }
}

TEST(RaidAssembly, FindsTheFirstCompleteArrayOfALevelThatIsMapped) {
    RvpRaid raid;
    addMember(raid, {.disks = 1, .number = 200, .uuidWord = 1}, PAIR[0]); // never complete
    addMembers(raid, {.disks = 3, .uuidWord = 2}, PAIR);                  // a member is missing
    EXPECT_EQ(raid.getRaidVolume(200), nullptr);
    EXPECT_EQ(raid.getRaidVolume(1), nullptr);
    addMembers(raid, {.disks = 2, .uuidWord = 4}, PAIR);
    addMembers(raid, {.disks = 2, .uuidWord = 5}, PAIR);
    EXPECT_EQ(raid.getRaidVolume(1)->setWord, 4U);

    std::uint32_t number = 100;
    for (const std::uint32_t level : {0U, 1U, 4U, 5U, 6U, 10U, 2U, 9U, 0xFFFFFFFFU}) {
        addMembers(raid, {.level = level, .disks = 2, .number = number, .uuidWord = number}, PAIR);
        EXPECT_EQ(raid.getRaidVolume(number) != nullptr, number < 106) << level;
        ++number;
    }
    EXPECT_EQ(raid.getMaxArrayNumber(), 200U);
}

TEST(RaidAssembly, FindsAVolumeByDiskNameAndPartitionStart) {
    RvpRaid raid;
    addMembers(raid, {.uuidWord = 1}, {makeDisk("a", 5), makeDisk("c", 7)}); // incomplete
    addMembers(raid, {.disks = 2, .uuidWord = 2}, {makeDisk("a", 5), makeDisk("b", 6)});
    addMembers(raid, {.level = 7, .disks = 2, .uuidWord = 3}, {makeDisk("b", 6), makeDisk("", 8)});
    const std::pair<RvpVolume, std::uint32_t> known[] = {
        {{"a", 5}, 2}, {{"b", 6}, 2}, {{"", 8}, 3}}; // whatever the level
    for (auto [volume, setWord] : known) {
        EXPECT_EQ(raid.getRaidVolume(&volume)->setWord, setWord);
    }
    // Unlike later errors, that of an unknown volume reaches the caller.
    const RvpVolume strangers[] = {
        {"a", 6}, {"c", 7}, {"aa", 5}, {"A", 5}, {std::string("a\0", 2), 5}, {"", 5}};
    for (const RvpVolume& stranger : strangers) {
        const LogCapture log;
        EXPECT_THROW(mapAddress(raid, stranger, 0, 512), OrmaError) << stranger.diskName;
        EXPECT_THAT(log.lines(),
                    testing::ElementsAre("getRaidVolume:RvpRaid <ERROR> Exception: VERIFY_ORMA"));
    }
}

} // namespace
