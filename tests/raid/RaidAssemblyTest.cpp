#include "RaidTesting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>
#include <type_traits>

using testing::ElementsAre;
using testing::IsNull;
using testing::NotNull;

static_assert(std::has_virtual_destructor_v<RvpRaid>);

namespace {

constexpr std::uint32_t NONE = 0xFFFFFFFF;

auto fieldsOf(const RaidVolume& volume) {
    return std::tuple(volume.complete, volume.arrayNumber, volume.deviceName, volume.setWord,
                      volume.majorVersion, volume.level, volume.layout, volume.raidDisks,
                      volume.chunkSize, std::string(volume.setName, 32));
}

TEST(RaidAssembly, KeepsTheFieldsOfASuperblock) {
    RvpRaid raid;
    const SuperblockValues old{.level = 5, .layout = 3, .disks = 2, .number = 0x80000001};
    addV090(raid, old, {makeDisk("a"), makeDisk("b")});
    EXPECT_EQ(fieldsOf(*raid.getRaidVolume(0x80000001)),
              std::tuple(true, 0x80000001, "/dev/md-2147483647", 0x77, 0, 5, 3, 2, 8 * 512,
                         std::string(32, '\0')));
    // The chunk size in bytes is formed in 32 bits.
    const SuperblockValues v1{
        .level = 6, .layout = 9, .disks = 2, .chunkSectors = 0x00800002, .setName = "host:4"};
    addV1(raid, v1, {makeDisk("a"), makeDisk("b")});
    EXPECT_EQ(fieldsOf(*raid.getRaidVolume(4)),
              std::tuple(true, 4, "/dev/md4", 0, 1, 6, 9, 2, 1024, "host:4" + std::string(26, 0)));
}

TEST(RaidAssembly, CopiesDisksAndMarksOnlyTheCopyOfRoleZero) {
    const auto textOf = [](const RvpDisk& disk) {
        const auto* lead = reinterpret_cast<const char*>(disk.partitions.front().lead);
        return disk.name + " " + std::to_string(disk.callerWord) + " " + std::string(lead, 8);
    };
    RvpDisk disk = makeDisk("sda", 63, 1000);
    disk.callerWord = 12;
    std::memcpy(disk.partitions.front().lead, "ABCDEFGH", 8);
    RvpRaid raid;
    for (const std::uint32_t role : {0U, 1U}) {
        raid.addPartitionToVolume(disk, v090Bytes({.disks = 2, .role = role}).v090());
    }
    const RaidVolume& volume = *raid.getRaidVolume(1);
    EXPECT_EQ(textOf(disk), "sda 12 ABCDEFGH");
    EXPECT_EQ(textOf(volume.members.front().disk), "sda 12 AB\xFD"
                                                   "DEFGH");
    EXPECT_EQ(textOf(volume.members.back().disk), "sda 12 ABCDEFGH");
}

TEST(RaidAssembly, SortsMembersByRoleAndThenByArrival) {
    RvpRaid raid;
    const std::pair<const char*, std::uint32_t> arrivals[] = {
        {"two", 2}, {"zero", 0}, {"one", 1}, {"spare", 0xFFFE}, {"other two", 2}, {"another", 1}};
    for (const auto& [name, role] : arrivals) {
        RvpDisk disk = makeDisk(name);
        raid.addPartitionToVolume_v1(disk, v1Bytes({.disks = 6, .role = role}).v1());
    }
    const RaidVolume& volume = *raid.getRaidVolume(1);
    EXPECT_THAT(namesOf(volume.members),
                ElementsAre("zero", "one", "another", "two", "other two", "spare"));
    EXPECT_EQ(volume.members.back().role, 0xFFFEU);
}

TEST(RaidAssembly, TakesTheRoleAtTheDeviceNumberWhereThereIsOne) {
    for (const auto& [device, role] :
         {std::pair{0U, 3U}, {1919U, 7U}, {1920U, 0xFFFFU}, {0x80000000U, 0xFFFFU}}) {
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
    for (const std::uint32_t state : {0U, 3U, 8U, 0xFFFFFFFBU, 4U, 0xFFFFFFFFU}) {
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
    raid.addPartitionToVolume(disk, v090Bytes({.level = 0, .disks = 2, .number = 4}).v090());
    EXPECT_THAT(raid.getRaidVolume(4), IsNull());
    EXPECT_EQ(raid.getMaxArrayNumber(), 3U);
    // The array stays what its first member said, though the second one completes it at level 0.
    EXPECT_EQ(raid.getRaidVolume(3)->level, 5U);
    EXPECT_EQ(raid.getRaidVolume(3)->segments.size(), 1U);

    // A UUID that starts with zero meets an array of version 1.0, which has none, and an empty set
    // name one of version 0.90.
    const SuperblockValues zero{.disks = 2, .number = 9, .uuidWord = 0, .setName = ""};
    raid.addPartitionToVolume_v1(disk, v1Bytes({.disks = 2, .setName = "7"}).v1());
    raid.addPartitionToVolume(disk, v090Bytes(zero).v090());
    EXPECT_EQ(raid.getRaidVolume(7)->members.size(), 2U);
    raid.addPartitionToVolume_v1(disk, v1Bytes(zero).v1());
    EXPECT_EQ(raid.getRaidVolume(3)->members.size(), 3U);
}

TEST(RaidAssembly, ComparesSetNamesAsStringsOfAtMost32Bytes) {
    for (const std::string& name :
         {"5---------:--------------------X" + std::string(8, 'A'), std::string("0\0one", 5)}) {
        SuperblockBytes bytes = v1Bytes({.disks = 2, .setName = name});
        RvpRaid raid;
        RvpDisk disk = makeDisk("a");
        raid.addPartitionToVolume_v1(disk, bytes.v1());
        bytes.put(32 + name.size() - 1, 'B'); // behind the 32 bytes, or behind the zero
        raid.addPartitionToVolume_v1(disk, bytes.v1());
        ASSERT_THAT(raid.getRaidVolume(0U), NotNull()) << name;
        EXPECT_EQ(std::string(raid.getRaidVolume(0U)->setName, 32),
                  (name + std::string(32, 0)).substr(0, 32));
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
        {"h:-2", 0xFFFFFFFE, "/dev/md-2"},
        {"h:-1", NONE, "/dev/md_h:-1"},
        {"h:4294967301", 5, "/dev/md5"},
        {std::string(29, 'x') + ":8", 8, "/dev/md8"},
        {std::string(30, 'x') + ":8", NONE, "/dev/md_" + std::string(30, 'x') + ":8"},
        {"1" + std::string(30, 'x') + ":", 1, "/dev/md1"},
        {std::string(32, 'y'), NONE, "/dev/md_" + std::string(32, 'y')},
        {std::string("ab\0:5", 5), 5, "/dev/md5"},
    };
    for (const auto& array : arrays) {
        SCOPED_TRACE(array.setName);
        RvpRaid raid;
        addV1(raid, {.disks = 2, .setName = array.setName}, {makeDisk("a"), makeDisk("b")});
        const RaidVolume* volume = raid.getRaidVolume(array.number);
        ASSERT_THAT(volume, NotNull());
        EXPECT_EQ(volume->deviceName, array.deviceName);
        EXPECT_EQ(raid.getMaxArrayNumber(), array.number == NONE ? 0 : array.number);
    }
}

TEST(RaidAssembly, FindsTheFirstCompleteArrayOfALevelThatIsMapped) {
    RvpRaid raid;
    const std::vector<RvpDisk> disks{makeDisk("a"), makeDisk("b"), makeDisk("c")};
    addV090(raid, {.disks = 1, .number = 8, .uuidWord = 1}, {disks[0]}); // never complete
    EXPECT_THAT(raid.getRaidVolume(8), IsNull());
    addV090(raid, {.uuidWord = 2}, {disks[0], disks[1]}); // a member is missing
    addV090(raid, {.level = 7, .uuidWord = 3}, disks);
    EXPECT_THAT(raid.getRaidVolume(1), IsNull());
    addV090(raid, {.uuidWord = 4}, disks);
    addV090(raid, {.uuidWord = 5}, disks);
    EXPECT_EQ(raid.getRaidVolume(1)->setWord, 4U);
    EXPECT_EQ(raid.getMaxArrayNumber(), 8U);

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
    const std::pair<RvpVolume, std::uint32_t> known[] = {
        {{"a", 5}, 2}, {{"b", 6}, 2}, {{"", 8}, 3}}; // whatever the level
    for (auto [volume, setWord] : known) {
        EXPECT_EQ(raid.getRaidVolume(&volume)->setWord, setWord);
    }
    const RvpVolume strangers[] = {
        {"a", 6}, {"c", 7}, {"aa", 5}, {"A", 5}, {std::string("a\0", 2), 5}, {"", 5}};
    for (RvpVolume stranger : strangers) {
        EXPECT_THROW(raid.getRaidVolume(&stranger), OrmaError) << stranger.diskName;
    }
}

TEST(RaidAssembly, AMemberThatComesLateChangesNothingElse) {
    RvpRaid raid;
    const RvpDisk stub = makeDisk("c", 2048, 7); // holds no chunk
    addV090(raid, {.level = 0}, {makeDisk("a"), makeDisk("b"), stub, makeDisk("late")});
    const RaidVolume& volume = *raid.getRaidVolume(1);
    EXPECT_THAT(namesOf(volume.members), ElementsAre("a", "b", "c", "late"));
    ASSERT_EQ(volume.segments.size(), 1U);
    EXPECT_EQ(volume.segments.front().chunks, 2 * 1024U);
    EXPECT_THAT(namesOf(volume.segments.front().members), ElementsAre("a", "b"));
    addV090(raid, {.level = 0, .disks = 2, .chunkSectors = 0, .number = 2, .uuidWord = 2},
            {makeDisk("a"), makeDisk("b")});
    EXPECT_EQ(raid.getRaidVolume(2)->segments.size(), 0U) << "without a chunk size";
}

} // namespace
