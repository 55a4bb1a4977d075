// Damaged volumes: what is true is delivered, then a status; never a crash, a hang, or bytes that
// are not the file's.
#include "Image.h"

#include <gtest/gtest.h>

namespace {

constexpr const char* NO_CHECKSUMS = "-t ext4 -b 1024 -O ^metadata_csum,^64bit";

void put32(std::string& bytes, std::uint64_t offset, std::uint32_t value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

TEST(DamageTest, RecordsBeforeADamagedExtentAreDelivered) {
    // Of the third extent: words 9 and 11 are its places in the file and in the volume, 10 its
    // length.
    for (const auto& [word, value] :
         {std::pair(11U, 0x7fffffffU), {11, 0}, {9, 1}, {9, 3}, {10, 0}}) {
        const Image image = Image::withFile(NO_CHECKSUMS, fragments(3));
        auto sound = Host(image).extents(FILE_INDEX);
        ASSERT_EQ(sound.size(), 6U);
        sound.resize(4);
        image.setMapWord(word, value);
        Host host(image);
        for (const std::uint32_t capacity : {1U, 8U}) {
            EXPECT_EQ(host.extents(FILE_INDEX, capacity), sound) << word << " " << value;
            EXPECT_EQ(host.status, FSO_DAMAGED);
        }
        EXPECT_EQ(host.log.size(), 1U);
    }
}

TEST(DamageTest, WrongChecksumsAreNotBelieved) {
    std::string bytes = Image("-t ext4 -b 1024", "ln -s 'a target in the inode' link").bytes();
    bytes[bytes.find("a target in")] = 'A';
    bytes[1024 + 0x78] = 'L'; // the volume's name in the superblock
    Host host(bytes);
    EXPECT_TRUE(host.logged("the superblock has a wrong checksum"));
    EXPECT_EQ(host.list(ROOT).size(), 2U);
    host.open(FILE_INDEX);
    EXPECT_EQ(host.status, FSO_DAMAGED);
    EXPECT_TRUE(host.logged("inode 12 has a wrong checksum"));
}

TEST(DamageTest, ADamagedDescriptorHidesNoInode) {
    std::string bytes = Image("-t ext4 -b 1024", "touch file").bytes();
    bytes[2 * 1024 + 0x12] = static_cast<char>(bytes[2 * 1024 + 0x12] | 1); // no inode is in use
    Host host(bytes);
    host.open(FILE_INDEX);
    EXPECT_EQ(host.status, FSO_OK);
    EXPECT_TRUE(host.logged("the descriptor of group 0 has a wrong checksum"));
}

TEST(DamageTest, DirectoriesAreListedAroundDamage) {
    for (const std::string options : {NO_CHECKSUMS, "-t ext4 -b 1024"}) {
        Host sound(Image(options, "mkdir many && seq -f many/entry-number-%g 200 | xargs touch"));
        const auto all = sound.list(FILE_INDEX);
        // In the second block, the third entry's record length.
        std::string bytes = sound.bytes;
        std::uint64_t at = sound.extents(FILE_INDEX)[0].offset + 1024;
        at += static_cast<unsigned char>(bytes[at + 4]);
        at += static_cast<unsigned char>(bytes[at + 4]);
        bytes[at + 4] = 3;
        Host host(bytes);
        for (const std::size_t bufferSize : {56UL, 65536UL}) {
            const auto some = host.list(FILE_INDEX, bufferSize);
            EXPECT_EQ(host.status, FSO_DAMAGED);
            EXPECT_LT(some.size(), all.size());
            EXPECT_EQ(some.back().name, all.back().name); // those behind the block are there
            EXPECT_EQ(some.front().name, all.front().name);
        }
        EXPECT_EQ(host.log.size(), 1U);
        EXPECT_EQ(host.logged("a wrong checksum"), options != NO_CHECKSUMS);
    }
}

TEST(DamageTest, EntriesThatNameNothingAreSkipped) {
    Host sound(Image(NO_CHECKSUMS, "touch good slash wild"));
    std::string bytes = sound.bytes;
    const std::uint64_t root = sound.extents(ROOT)[0].offset;
    bytes.replace(bytes.find("slash", root), 5, "s/%s%");
    put32(bytes, bytes.find("wild", root) - 8, 0x00ffffff);
    Host host(bytes);
    const auto entries = host.list(ROOT);
    ASSERT_EQ(entries.size(), 2U); // with lost+found
    EXPECT_EQ(entries[1].name, "good");
    EXPECT_TRUE(host.logged("\"s/%%s%%\""));
    EXPECT_TRUE(host.logged("\"wild\" with inode 16777215"));
}

// A triply indirect block whose pointers lead to one empty block over and over maps holes without
// end, one that points to itself maps data.
TEST(DamageTest, LoopsOfPointersEnd) {
    const Image image = Image::withFile("-t ext2 -b 1024", "x");
    constexpr std::uint32_t loop = 7000;
    image.setMapWord(14, loop);
    for (const bool toItself : {false, true}) {
        std::string bytes = image.bytes();
        for (unsigned slot = 0; slot < 512; ++slot) {
            put32(bytes, loop * 1024 + slot * 4, toItself ? loop : loop + 1 + slot / 256);
        }
        const Host host(bytes);
        fso_extent some[64];
        std::uint32_t count = 0;
        EXPECT_EQ(host.object->getExtents(FILE_INDEX, 0, some, 64, &count), FSO_OK);
        EXPECT_EQ(count, toItself ? 64U : 1U);
        EXPECT_EQ(host.logged("the map repeats itself"), !toItself);
    }
}

TEST(DamageTest, BlockPointersOutsideTheVolume) {
    for (const auto& [slot, sound] : {std::pair(3U, 3U), {12, 12}, {13, 12 + 256}}) {
        const Image image = Image::withFile("-t ext2 -b 1024", std::string(300 * 1024, 'x'));
        image.setMapWord(slot, 0x00ffffff);
        Host host(image);
        std::uint64_t length = 0;
        for (const fso_extent& extent : host.extents(FILE_INDEX, 3)) {
            length += extent.length;
        }
        EXPECT_EQ(host.status, FSO_DAMAGED);
        EXPECT_EQ(length, sound * 1024U);
    }
}

TEST(DamageTest, BehindTheEndOfATruncatedVolumeReadsFail) {
    const Image image(NO_CHECKSUMS + std::string(" -G 1 -g 1024 -N 256"));
    Host host(image.bytes().substr(0, 2 << 20));
    host.open(ROOT);
    EXPECT_EQ(host.status, FSO_OK);
    host.open(255);
    EXPECT_EQ(host.status, FSO_IO);
}

} // namespace
