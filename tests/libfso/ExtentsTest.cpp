// Files of every shape on volumes of every geometry: bytes as in the source, runs as debugfs has
// them.
#include "Image.h"

#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;

// A file with the given pieces of 1000 bytes each and a size behind the last.
void writeSparse(const std::string& path, const std::vector<std::uint64_t>& offsets,
                 std::uint64_t size) {
    const int file = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    for (const std::uint64_t offset : offsets) {
        const std::string text = pattern(1000, static_cast<unsigned>(offset));
        ASSERT_EQ(pwrite(file, text.data(), text.size(), static_cast<off_t>(offset)), 1000);
    }
    ASSERT_EQ(ftruncate(file, static_cast<off_t>(size)), 0);
    close(file);
}

void fillSource(const TemporaryFolder& source) {
    for (const unsigned size : {0, 10, 60, 100}) {
        writeFile(source / ("small" + std::to_string(size)), pattern(size));
    }
    writeFile(source / "large", pattern(700 * 1000 + 1));
    writeSparse(source / "sparse", {5 << 10, 40 << 10, 41 << 10, 300 << 10, 900 << 10}, 1 << 20);
    // With 1 KiB blocks, singly, doubly and triply indirect blocks map these.
    writeSparse(source / "indirect", {0, 20 << 10, 300 << 10, 66000ULL << 10, 70000ULL << 10},
                70002ULL << 10);
    writeSparse(source / "hole", {}, 5 << 20);
    for (const std::size_t length : {6U, 59U, 60U, 700U}) {
        symlink(std::string(length, 'x').c_str(),
                (source / ("link" + std::to_string(length))).c_str());
    }
    link((source / "small10").c_str(), (source / "hard link").c_str());
    mkfifo((source / "pipe").c_str(), 0600);
    mkdir((source / "folder").c_str(), 0755);
    for (int i = 0; i < 300; ++i) {
        writeFile(source / ("folder/name " + std::to_string(i)), std::to_string(i));
    }
}

struct Geometry {
    const char* name;
    const char* options;
    std::uint32_t type;
};

class GeometryTest : public testing::TestWithParam<Geometry> {};

TEST_P(GeometryTest, BytesAreTheSourcesAndRunsAreDebugfs) {
    TemporaryFolder source;
    fillSource(source);
    const Image image(GetParam().options, "64M", source / "");
    const Host host(image);
    ASSERT_TRUE(host.recognised);
    fso_fs_record fs;
    ASSERT_EQ(host.object->statFs(&fs), FSO_OK);
    EXPECT_EQ(fs.type, GetParam().type);

    auto found = host.walk();
    const bool isInline = std::string(GetParam().options).find("inline") != std::string::npos;
    EXPECT_EQ(found.at("/small10"), found.at("/hard link"));
    unsigned compared = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(source / "")) {
        const std::string path = "/" + entry.path().lexically_relative(source / "").string();
        ASSERT_TRUE(found.count(path)) << path;
        const std::uint64_t index = found[path];
        if (entry.is_symlink() || entry.is_regular_file()) {
            std::string expected = entry.is_symlink()
                                       ? std::filesystem::read_symlink(entry.path()).string()
                                       : readFile(entry.path());
            if (isInline) {
                // mke2fs leaves out what is a hole at the end of a file that it moves to blocks.
                expected.resize(host.open(index).size);
            }
            EXPECT_TRUE(host.content(index) == expected) << path;
        }
        const std::vector<fso_extent> all = host.extents(index);
        // One of the names is enough to ask debugfs about the folder.
        if (!path.starts_with("/folder/") && (all[0].flags & FSO_EXTENT_INLINE) == 0) {
            EXPECT_EQ(all, extentsByDebugfs(image, host, index)) << path;
            ++compared;
        }
        EXPECT_EQ(host.extents(index, 1), all) << path;
    }
    EXPECT_GT(compared, isInline ? 3U : 8U);
    EXPECT_TRUE(host.log.empty()) << host.log[0];
}

INSTANTIATE_TEST_SUITE_P(
    Volumes, GeometryTest,
    testing::Values(
        Geometry{"Ext2Blocks1K", "-t ext2 -b 1024", FSO_FS_EXT2},
        Geometry{"Ext2Blocks4K", "-t ext2 -b 4096", FSO_FS_EXT2},
        Geometry{"Ext3", "-t ext3 -b 1024", FSO_FS_EXT3},
        Geometry{"Ext4Blocks1K", "-t ext4 -b 1024", FSO_FS_EXT4},
        Geometry{"Ext4Blocks4K", "-t ext4 -b 4096", FSO_FS_EXT4},
        Geometry{"Ext4Blocks64K", "-t ext4 -b 65536", FSO_FS_EXT4},
        Geometry{"Old32Bit", "-t ext4 -O ^64bit,^metadata_csum,uninit_bg", FSO_FS_EXT4},
        Geometry{"MetaGroups", "-t ext4 -b 1024 -O meta_bg,^resize_inode", FSO_FS_EXT4},
        Geometry{"Clusters", "-t ext4 -b 4096 -O bigalloc -C 65536", FSO_FS_EXT4},
        Geometry{"InlineLargeInodes", "-t ext4 -b 4096 -I 1024 -O inline_data", FSO_FS_EXT4},
        Geometry{"InlineMmp", "-t ext4 -b 1024 -O inline_data,mmp,large_dir", FSO_FS_EXT4}),
    [](const auto& instance) { return std::string(instance.param.name); });

class FragmentsTest : public testing::TestWithParam<unsigned> {};

// Every other block of a file; behind the first node these counts need a second node, a third
// level, and more.
TEST_P(FragmentsTest, EveryExtentIsListedOnceHoweverItIsAskedFor) {
    constexpr std::uint64_t blockSize = 1024;
    std::vector<std::uint64_t> offsets;
    for (unsigned i = 0; i < GetParam(); ++i) {
        offsets.push_back((2 * i + 1) * blockSize);
    }
    const std::uint64_t size = offsets.back() + blockSize;
    TemporaryFolder source;
    writeSparse(source / "file", offsets, size);
    const Image image("-t ext4 -b 1024", "16M", source.path());
    const Host host(image);
    const std::uint64_t file = host.find("/file");
    const std::vector<fso_extent> expected = extentsByDebugfs(image, host, file);
    ASSERT_EQ(expected.size(), 2 * offsets.size());
    for (const std::uint32_t capacity : {1U, 7U, 341U, 20000U}) {
        EXPECT_TRUE(host.extents(file, capacity) == expected) << capacity;
    }
    EXPECT_LT(host.readCount, 400U); // each node is read about once a pass, not once a call

    fso_extent one;
    std::uint32_t got = 0;
    ASSERT_EQ(host.object->getExtents(file, offsets.back() + 100, &one, 1, &got), FSO_OK);
    EXPECT_EQ(one, (fso_extent{expected.back().offset + 100, blockSize - 100, FSO_EXTENT_LAST, 0}));
    EXPECT_EQ(host.object->getExtents(file, size, &one, 1, &got), FSO_INVALID);
    EXPECT_EQ(got, 0U);
}

INSTANTIATE_TEST_SUITE_P(Counts, FragmentsTest, testing::Values(4, 5, 84, 85, 336, 337, 5000));

struct RawExtent {
    std::uint32_t block;
    std::uint16_t count; // 32768 more for an unwritten one
    std::uint16_t physicalHigh;
    std::uint32_t physical;
};

// The records of a file whose inode is given these extents and this size.
std::vector<fso_extent> extentsOf(const std::vector<RawExtent>& raw, std::uint64_t size) {
    const Image image = Image::withFile("-t ext4 -b 4096 -O ^metadata_csum", "256M", "x");
    image.change("sif file size " + std::to_string(size));
    std::string bytes = image.bytes();
    char* const map = bytes.data() + inodeOffset(image, "/file") + 40;
    map[2] = static_cast<char>(raw.size());
    std::memcpy(map + 12, raw.data(), raw.size() * sizeof(RawExtent));
    const Host host(bytes);
    const std::uint64_t file = host.find("/file");
    const unsigned before = host.readCount;
    const auto extents = host.extents(file);
    EXPECT_LT(host.readCount - before, 10U);
    return extents;
}

TEST(ExtentsTest, NeighboursMergeAndUnwrittenRangesStayApart) {
    constexpr std::uint16_t unwritten = 32768;
    EXPECT_THAT(
        extentsOf({{2, 1, 0, 30000},
                   {3, 2, 0, 30001},
                   {5, unwritten + 2, 0, 30003},
                   {30, unwritten + 4, 0, 31000}}, // behind the end
                  20 * 4096 - 5),
        ElementsAre(fso_extent{0, 2 * 4096, FSO_EXTENT_HOLE, 0},
                    fso_extent{30000 * 4096, 3 * 4096, 0, 0},
                    fso_extent{30003 * 4096, 2 * 4096, FSO_EXTENT_UNWRITTEN, 0},
                    fso_extent{0, 23 * 4096, FSO_EXTENT_HOLE, 0},
                    fso_extent{31000 * 4096, 4 * 4096, FSO_EXTENT_UNWRITTEN | FSO_EXTENT_LAST, 0}));
    // Longer than one extent can be.
    EXPECT_THAT(extentsOf({{0, 32768, 0, 10000}, {32768, 7232, 0, 42768}}, 40000ULL * 4096),
                ElementsAre(fso_extent{10000 * 4096, 40000ULL * 4096, FSO_EXTENT_LAST, 0}));
}

TEST(ExtentsTest, HugeHolesTakeNoTime) {
    constexpr std::uint64_t tebibyte = std::uint64_t{1} << 40;
    EXPECT_THAT(extentsOf({{1, 1, 0, 9000}, {0xfffffff0, 1, 0, 9001}}, 16 * tebibyte - 4096),
                ElementsAre(fso_extent{0, 4096, FSO_EXTENT_HOLE, 0},
                            fso_extent{9000 * 4096, 4096, 0, 0},
                            fso_extent{0, 0xffffffeeULL * 4096, FSO_EXTENT_HOLE, 0},
                            fso_extent{9001 * 4096, 4096, 0, 0},
                            fso_extent{0, 14 * 4096, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0}));

    const Image pointers = Image::withFile("-t ext2 -b 4096", "64M", "x");
    pointers.change("sif file size 0x3FFFFFFF000");
    const Host host(pointers);
    const auto runs = host.extents(host.find("/file"));
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[1], (fso_extent{0, 0x3FFFFFFE000, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0}));
    EXPECT_LT(host.readCount, 30U);
}

TEST(ExtentsTest, InlineBytesAreExactPieces) {
    const Image image =
        Image::withFile("-t ext4 -b 4096 -I 256 -O inline_data", "16M", pattern(100));
    const Host host(image);
    const std::uint64_t file = host.find("/file");
    const auto flags = [](unsigned length, unsigned other = 0) {
        return FSO_EXTENT_INLINE | length << FSO_EXTENT_INLINE_LENGTH_SHIFT | other;
    };
    const auto pieces = host.extents(file);
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_EQ(pieces[0], (fso_extent{pieces[0].offset, 60, flags(60), 0}));
    EXPECT_EQ(pieces[1], (fso_extent{pieces[1].offset, 40, flags(40, FSO_EXTENT_LAST), 0}));
    EXPECT_EQ(host.content(file), pattern(100));

    fso_extent rest;
    std::uint32_t count = 0;
    ASSERT_EQ(host.object->getExtents(file, 70, &rest, 1, &count), FSO_OK);
    EXPECT_EQ(rest, (fso_extent{pieces[1].offset + 10, 30, flags(30, FSO_EXTENT_LAST), 0}));
    EXPECT_EQ(host.object->getExtents(file, 100, &rest, 1, &count), FSO_INVALID);
}

TEST(ExtentsTest, EncryptedFilesAreMarked) {
    const Image image = Image::withFile("-t ext4 -b 4096 -O encrypt", "16M", pattern(5000));
    image.change("sif file flags 0x80800");
    const Host host(image);
    EXPECT_EQ(host.extents(host.find("/file"))[0].flags, FSO_EXTENT_ENCODED | FSO_EXTENT_LAST);
}

} // namespace
