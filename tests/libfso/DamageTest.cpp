// Damaged volumes: what is true is delivered, then a status; never a crash, a hang, or bytes that
// are not the file's.
#include "Image.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

constexpr const char* NO_CHECKSUMS = "-t ext4 -b 1024 -O ^metadata_csum,^64bit";

// A file of three extents behind holes, of 1 KiB blocks.
Image sparseImage(const std::string& options) {
    const TemporaryFolder source;
    writeFile(source / "block", pattern(1024));
    outputOf("cd '" + source.path() +
             "' && mkdir tree && for i in 0 2 4; do dd if=block of=tree/file bs=1024 seek=$i "
             "conv=notrunc 2>/dev/null; done");
    return {options, "8M", source / "tree"};
}

void put32(std::string& bytes, std::uint64_t offset, std::uint32_t value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

TEST(DamageTest, RecordsBeforeADamagedExtentAreDelivered) {
    const Image image = sparseImage(NO_CHECKSUMS);
    const Host sound(image);
    const std::uint64_t file = sound.find("/file");
    const auto all = sound.extents(file);
    ASSERT_EQ(all.size(), 5U);
    constexpr std::size_t third = 40 + 12 * 3; // the third extent in the inode
    const struct {
        const char* name;
        std::size_t offset;
        std::uint32_t value;
    } damages[] = {{"outside", third + 8, 0x7fffffff},
                   {"superblock", third + 8, 0},
                   {"backwards", third, 1},
                   {"overlap", third, 2},
                   {"no length", third + 4, 0}};
    for (const auto& damage : damages) {
        std::string bytes = image.bytes();
        put32(bytes, inodeOffset(image, "/file") + damage.offset, damage.value);
        const Host host(bytes);
        for (const std::uint32_t capacity : {1U, 8U}) {
            std::uint32_t status = FSO_OK;
            const auto some = host.extents(file, capacity, &status);
            EXPECT_EQ(status, FSO_DAMAGED) << damage.name;
            EXPECT_EQ(some, std::vector<fso_extent>(all.begin(), all.begin() + 3)) << damage.name;
        }
        EXPECT_EQ(host.log.size(), 1U);
    }
}

TEST(DamageTest, WrongChecksumsAreNotBelieved) {
    const Image image = sparseImage("-t ext4 -b 1024");
    const std::uint64_t file = Host(image).find("/file");
    std::string bytes = image.bytes();
    bytes[inodeOffset(image, "/file") + 4] ^= 1; // the size
    const Host host(bytes);
    EXPECT_ANY_THROW(host.open(file));
    EXPECT_TRUE(host.logged("inode " + std::to_string(file) + " has a wrong checksum"));

    bytes = image.bytes();
    bytes[1024 + 0x78] = 'L'; // the volume's name in the superblock
    const Host renamed(bytes);
    EXPECT_TRUE(renamed.recognised);
    EXPECT_TRUE(renamed.logged("the superblock has a wrong checksum"));
    EXPECT_EQ(renamed.extents(file).size(), 5U);
}

TEST(DamageTest, DirectoriesAreListedAroundDamage) {
    TemporaryFolder source;
    outputOf("mkdir '" + (source / "many") + "'; cd '" + (source / "many") +
             "'; for i in $(seq 200); do : > \"entry-number-$i\"; done");
    for (const std::string options : {NO_CHECKSUMS, "-t ext4 -b 1024"}) {
        const Image image(options, "8M", source.path());
        const Host sound(image);
        const std::uint64_t many = sound.find("/many");
        const auto all = sound.list(many);
        std::string bytes = image.bytes();
        // In the second block, the third entry's record length.
        std::uint64_t at = sound.extents(many)[0].offset + 1024;
        at += static_cast<unsigned char>(bytes[at + 4]);
        at += static_cast<unsigned char>(bytes[at + 4]);
        bytes[at + 4] = 3;
        const Host host(bytes);
        for (const std::size_t bufferSize : {56UL, 65536UL}) {
            std::uint32_t status = FSO_OK;
            const auto some = host.list(many, bufferSize, &status);
            EXPECT_EQ(status, FSO_DAMAGED);
            EXPECT_LT(some.size(), all.size());
            EXPECT_EQ(some.back().name, all.back().name); // those behind the block are there
            EXPECT_EQ(some.front().name, all.front().name);
        }
        EXPECT_EQ(host.log.size(), 1U);
    }
}

TEST(DamageTest, EntriesThatNameNothingAreSkipped) {
    TemporaryFolder source;
    for (const char* name : {"good", "slash", "wild"}) {
        writeFile(source / name, name);
    }
    const Image image(NO_CHECKSUMS, "8M", source / "");
    const Host sound(image);
    std::string bytes = image.bytes();
    const std::uint64_t root = sound.extents(2)[0].offset;
    const std::uint64_t slash = bytes.find("slash", root);
    bytes.replace(slash, 5, "s/%s%");
    put32(bytes, bytes.find("wild", root) - 8, 0x00ffffff);
    const Host host(bytes);
    const auto entries = host.list(2);
    ASSERT_EQ(entries.size(), 2U); // with lost+found
    EXPECT_EQ(entries[1].name, "good");
    EXPECT_TRUE(host.logged("\"s/%%s%%\""));
    EXPECT_TRUE(host.logged("\"wild\" with inode 16777215"));
}

// A triply indirect block whose pointers lead to one empty block over and over maps holes without
// end, one that points to itself maps data.
TEST(DamageTest, LoopsOfPointersEnd) {
    const Image image = Image::withFile("-t ext2 -b 1024", "8M", pattern(1024));
    constexpr std::uint32_t loop = 7000;
    for (const bool toItself : {false, true}) {
        std::string bytes = image.bytes();
        put32(bytes, inodeOffset(image, "/file") + 40 + 4 * 14, loop);
        for (unsigned slot = 0; slot < 512; ++slot) {
            put32(bytes, loop * 1024 + slot * 4, toItself ? loop : loop + 1 + slot / 256);
        }
        const Host host(bytes);
        fso_extent some[64];
        std::uint32_t count = 0;
        EXPECT_EQ(host.object->getExtents(host.find("/file"), 0, some, 64, &count), FSO_OK);
        EXPECT_EQ(count, toItself ? 64U : 1U);
        EXPECT_EQ(host.logged("the map repeats itself"), !toItself);
    }
}

TEST(DamageTest, BlockPointersOutsideTheVolume) {
    const Image image = Image::withFile("-t ext2 -b 1024", "8M", pattern(300 * 1024));
    const std::uint64_t inode = inodeOffset(image, "/file");
    for (const unsigned slot : {3U, 12U, 13U}) {
        std::string bytes = image.bytes();
        put32(bytes, inode + 40 + 4 * slot, 0x00ffffff);
        const Host host(bytes);
        std::uint32_t status = FSO_OK;
        std::uint64_t length = 0;
        for (const fso_extent& extent : host.extents(host.find("/file"), 3, &status)) {
            length += extent.length;
        }
        EXPECT_EQ(status, FSO_DAMAGED);
        EXPECT_EQ(length, (slot < 13 ? slot : 12 + 256) * 1024U);
    }
}

TEST(DamageTest, BehindTheEndOfATruncatedVolumeReadsFail) {
    const Image image(NO_CHECKSUMS + std::string(" -G 1 -g 1024 -N 256"), "8M");
    const Host host(image.bytes().substr(0, 2 << 20));
    ASSERT_TRUE(host.recognised);
    fso_file_record record;
    std::uint32_t flags = 0;
    EXPECT_EQ(host.object->openFile(2, &record, &flags), FSO_OK);
    EXPECT_EQ(host.object->openFile(255, &record, &flags), FSO_IO);
    host.object->closeFile(2);
    host.object->closeFile(255);
}

} // namespace
