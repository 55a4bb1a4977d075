// Damaged volumes: what is true is delivered, then a status; never a crash, a hang, or bytes that
// are not the file's.
#include "Image.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>

namespace {

constexpr const char* NO_CHECKSUMS = "-t ext4 -b 1024 -O ^metadata_csum,^64bit";

// A file of three extents behind holes, of 1 KiB blocks.
std::string sparseSource(const TemporaryFolder& source) {
    writeFile(source / "block", pattern(1024));
    run("cd '" + (source / "") +
        "' && mkdir tree && for i in 0 2 4; do dd if=block of=tree/file "
        "bs=1024 seek=$i conv=notrunc 2>/dev/null; done");
    return source / "tree";
}

std::uint64_t inodeOffset(const Image& image, const std::string& path) {
    // "Inode 12 is part of block group 0\n\tlocated at block 70, offset 0x0b00"
    const std::string text = image.ask("imap " + path);
    const std::uint64_t block = std::stoull(text.substr(text.find("block ", text.find("at")) + 6));
    return block * 1024 + std::stoull(text.substr(text.find("0x")), nullptr, 16);
}

void put32(std::string& bytes, std::uint64_t offset, std::uint32_t value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

TEST(DamageTest, RecordsBeforeADamagedExtentAreDelivered) {
    TemporaryFolder source;
    const Image image(NO_CHECKSUMS, "8M", sparseSource(source));
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
    TemporaryFolder source;
    const Image image("-t ext4 -b 1024", "8M", sparseSource(source));
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
    run("mkdir '" + (source / "many") + "'; cd '" + (source / "many") +
        "'; for i in $(seq 200); do : > \"entry-number-$i\"; done");
    for (const bool checksums : {false, true}) {
        const Image image(checksums ? "-t ext4 -b 1024" : NO_CHECKSUMS, "8M", source / "");
        const Host sound(image);
        const std::uint64_t many = sound.find("/many");
        const auto all = sound.list(many);
        const auto run0 = sound.extents(many)[0];
        ASSERT_EQ(run0.length % 1024, 0U);
        ASSERT_GT(run0.length, 4096U);
        std::string bytes = image.bytes();
        // In the second block, the third entry's record length.
        std::uint64_t at = run0.offset + 1024;
        for (int i = 0; i < 2; ++i) {
            at += static_cast<unsigned char>(bytes[at + 4]);
        }
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

// A triply indirect block that points to itself maps holes without end.
TEST(DamageTest, LoopsOfPointersEnd) {
    TemporaryFolder source;
    writeFile(source / "file", pattern(1024));
    const Image image("-t ext2 -b 1024", "8M", source / "");
    std::string bytes = image.bytes();
    const std::uint64_t inode = inodeOffset(image, "/file");
    constexpr std::uint32_t loop = 7000;
    put32(bytes, inode + 40 + 4 * 14, loop);
    std::memset(bytes.data() + loop * 1024, 0, 1024);
    for (unsigned slot = 0; slot < 255; ++slot) {
        put32(bytes, loop * 1024 + slot * 4, loop + 1 + slot % 2); // empty blocks in turn
    }
    std::memset(bytes.data() + (loop + 1) * 1024, 0, 2048);
    const Host host(bytes);
    std::uint32_t status = FSO_OK;
    const auto runs = host.extents(host.find("/file"), 4, &status);
    EXPECT_LE(runs.size(), 3U);
    for (unsigned slot = 0; slot < 256; ++slot) {
        put32(bytes, loop * 1024 + slot * 4, loop);
    }
    const Host self(bytes);
    fso_extent some[64];
    std::uint32_t count = 0;
    EXPECT_EQ(self.object->getExtents(self.find("/file"), 0, some, 64, &count), FSO_OK);
}

TEST(DamageTest, BlockPointersOutsideTheVolume) {
    TemporaryFolder source;
    writeFile(source / "file", pattern(300 * 1024));
    const Image image("-t ext2 -b 1024", "8M", source / "");
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

TEST(DamageTest, TruncatedVolumesGiveIoStatuses) {
    TemporaryFolder source;
    run("cd '" + (source / "") + "'; for d in $(seq 40); do mkdir d$d; : > d$d/f; done");
    const Image image(NO_CHECKSUMS + std::string(" -G 1 -g 1024 -N 256"), "8M", source / "");
    const std::string whole = image.bytes();
    unsigned failed = 0;
    for (std::size_t size = 0; size < whole.size(); size += 700 * 1024 + 512) {
        const Host host(whole.substr(0, size));
        if (!host.recognised) {
            continue;
        }
        for (std::uint64_t index = 11; index < 256; ++index) {
            fso_file_record record;
            std::uint32_t flags = 0;
            const std::uint32_t status = host.object->openFile(index, &record, &flags);
            EXPECT_TRUE(status == FSO_OK || status == FSO_NOT_FOUND || status == FSO_IO);
            failed += status == FSO_IO;
            host.object->closeFile(index);
        }
        host.touchEverything();
    }
    EXPECT_GT(failed, 0U);
}

// Flips bits where the metadata lies and uses everything. The seed is fixed; a failure names the
// variant.
TEST(DamageTest, ScribbledVolumesDoNoHarm) {
    TemporaryFolder source;
    run("cd '" + sparseSource(source) +
        "'; for i in $(seq 60); do echo $i > n$i; done; mkdir s; "
        "ln -s n1 s/l; dd if=../block of=big bs=1024 seek=70000 2>/dev/null");
    for (const char* options : {NO_CHECKSUMS, "-t ext2 -b 1024",
                                "-t ext4 -b 1024 -I 256 -O inline_data,^metadata_csum"}) {
        const Image image(options + std::string(" -N 128"), "3M", source / "tree");
        const std::string sound = image.bytes();
        for (unsigned variant = 0; variant < 150; ++variant) {
            SCOPED_TRACE(std::string(options) + ", variant " + std::to_string(variant));
            std::mt19937 random(variant);
            std::string bytes = sound;
            // The first variants hit the superblock and the descriptors, the others what follows.
            const std::size_t begin = variant < 40 ? 1024 : 4096;
            const std::size_t end = variant < 40 ? 4096 : 600 * 1024;
            for (int i = 0; i < (variant < 40 ? 2 : 2000); ++i) {
                bytes[begin + random() % (end - begin)] ^= static_cast<char>(1 << random() % 8);
            }
            const Host host(bytes);
            host.touchEverything();
        }
    }
}

} // namespace
