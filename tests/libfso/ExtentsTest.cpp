// Files of every shape on volumes of every geometry: bytes as in the source, runs as debugfs has
// them.
#include "Image.h"

#include <ext2fs/ext2fs.h>
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

// A writable handle of libext2fs on an image, to make files that no tool makes.
class Maker {
  public:
    explicit Maker(const Image& image) {
        EXPECT_EQ(ext2fs_open(image.path().c_str(), EXT2_FLAG_RW | EXT2_FLAG_64BITS, 0, 0,
                              unix_io_manager, &m_fs),
                  0);
        EXPECT_EQ(ext2fs_read_bitmaps(m_fs), 0);
    }
    ~Maker() { ext2fs_close_free(&m_fs); }
    Maker(const Maker&) = delete;
    Maker& operator=(const Maker&) = delete;

    // A regular file of the given size without any block.
    ext2_ino_t makeFile(std::uint64_t size) {
        ext2_ino_t number = 0;
        EXPECT_EQ(ext2fs_new_inode(m_fs, EXT2_ROOT_INO, 0100644, nullptr, &number), 0);
        ext2fs_inode_alloc_stats2(m_fs, number, 1, 0);
        ext2_inode inode{};
        inode.i_mode = 0100644;
        inode.i_links_count = 1;
        inode.i_flags = EXT4_EXTENTS_FL;
        ext2fs_inode_size_set(m_fs, &inode, static_cast<ext2_off64_t>(size));
        ext2_extent_handle_t handle = nullptr;
        EXPECT_EQ(ext2fs_extent_open2(m_fs, number, &inode, &handle), 0);
        ext2fs_extent_free(handle);
        EXPECT_EQ(ext2fs_write_new_inode(m_fs, number, &inode), 0);
        return number;
    }
    void map(ext2_ino_t number, std::uint64_t logical, std::uint64_t physical,
             std::uint64_t count = 1, bool unwritten = false) {
        ext2_extent_handle_t handle = nullptr;
        EXPECT_EQ(ext2fs_extent_open(m_fs, number, &handle), 0);
        for (std::uint64_t i = 0; i < count; ++i) {
            const int flags = unwritten ? EXT2_EXTENT_SET_BMAP_UNINIT : 0;
            EXPECT_EQ(ext2fs_extent_set_bmap(handle, logical + i, physical + i, flags), 0);
            ext2fs_mark_block_bitmap2(m_fs->block_map, physical + i);
        }
        ext2fs_extent_free(handle);
    }

  private:
    ext2_filsys m_fs = nullptr;
};

class FragmentsTest : public testing::TestWithParam<unsigned> {};

// Every other block of the volume; behind the first node these counts need a second node, a third
// level, and more.
TEST_P(FragmentsTest, EveryExtentIsListedOnceHoweverItIsAskedFor) {
    constexpr std::uint64_t blockSize = 4096;
    constexpr std::uint64_t base = 20000;
    const unsigned count = GetParam();
    const Image image("-t ext4 -b 4096", "256M");
    ext2_ino_t number = 0;
    {
        Maker maker(image);
        number = maker.makeFile(count * blockSize);
        for (unsigned i = 0; i < count; ++i) {
            maker.map(number, i, base + 2 * i);
        }
    }
    std::vector<fso_extent> expected;
    for (unsigned i = 0; i < count; ++i) {
        expected.push_back({(base + 2 * i) * blockSize, blockSize, 0, 0});
    }
    expected.back().flags = FSO_EXTENT_LAST;

    const Host host(image);
    EXPECT_TRUE(expected == extentsByDebugfs(image, host, number));
    for (const std::uint32_t capacity : {1U, 7U, 341U, 10000U}) {
        EXPECT_TRUE(host.extents(number, capacity) == expected) << capacity;
    }
    EXPECT_LT(host.readCount, 200U); // each node is read about once, not once a call

    fso_extent one;
    std::uint32_t got = 0;
    const std::uint64_t middle = (count - 1) * blockSize + 100;
    ASSERT_EQ(host.object->getExtents(number, middle, &one, 1, &got), FSO_OK);
    EXPECT_EQ(one, (fso_extent{expected.back().offset + 100, blockSize - 100, FSO_EXTENT_LAST, 0}));
    EXPECT_EQ(host.object->getExtents(number, count * blockSize, &one, 1, &got), FSO_INVALID);
    EXPECT_EQ(got, 0U);
}

INSTANTIATE_TEST_SUITE_P(Counts, FragmentsTest, testing::Values(4, 5, 340, 341, 1360, 1361, 5000));

TEST(ExtentsTest, NeighboursMergeAndUnwrittenRangesStayApart) {
    const Image image("-t ext4 -b 4096", "256M");
    ext2_ino_t number = 0;
    ext2_ino_t longest = 0;
    {
        Maker maker(image);
        number = maker.makeFile(20 * 4096 - 5);
        maker.map(number, 2, 30000, 3);
        maker.map(number, 5, 30003, 2, true);
        maker.map(number, 7, 30005, 3);
        maker.map(number, 30, 31000, 4, true);     // preallocated behind the end
        longest = maker.makeFile(40000ULL * 4096); // longer than one extent can be
        maker.map(longest, 0, 8000 + 10000, 40000);
    }
    const Host host(image);
    const std::vector<fso_extent> expected = {
        {0, 2 * 4096, FSO_EXTENT_HOLE, 0},
        {30000 * 4096, 3 * 4096, 0, 0},
        {30003 * 4096, 2 * 4096, FSO_EXTENT_UNWRITTEN, 0},
        {30005 * 4096, 3 * 4096, 0, 0},
        {0, 20 * 4096, FSO_EXTENT_HOLE, 0},
        {31000 * 4096, 4 * 4096, FSO_EXTENT_UNWRITTEN | FSO_EXTENT_LAST, 0},
    };
    EXPECT_EQ(host.extents(number), expected);
    EXPECT_THAT(host.extents(longest),
                ElementsAre(fso_extent{18000 * 4096, 40000ULL * 4096, FSO_EXTENT_LAST, 0}));
}

TEST(ExtentsTest, HugeHolesTakeNoTime) {
    constexpr std::uint64_t tebibyte = std::uint64_t{1} << 40;
    const Image image("-t ext4 -b 4096", "64M");
    const Image pointers("-t ext2 -b 4096", "64M");
    ext2_ino_t number = 0;
    {
        Maker maker(image);
        number = maker.makeFile(16 * tebibyte - 4096);
        maker.map(number, 1, 9000);
        maker.map(number, 0xfffffff0, 9001);
    }
    const Host host(image);
    EXPECT_THAT(host.extents(number),
                ElementsAre(fso_extent{0, 4096, FSO_EXTENT_HOLE, 0},
                            fso_extent{9000 * 4096, 4096, 0, 0},
                            fso_extent{0, 0xffffffeeULL * 4096, FSO_EXTENT_HOLE, 0},
                            fso_extent{9001 * 4096, 4096, 0, 0},
                            fso_extent{0, 14 * 4096, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0}));

    TemporaryFolder folder;
    writeFile(folder / "file", "x");
    pointers.change("write " + (folder / "file") + " file\nsif file size 0x3FFFFFFF000");
    const Host pointerHost(pointers);
    const auto runs = pointerHost.extents(pointerHost.find("/file"));
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[1], (fso_extent{0, 0x3FFFFFFE000, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0}));
    EXPECT_LT(pointerHost.readCount + host.readCount, 60U);
}

TEST(ExtentsTest, InlineBytesAreExactPieces) {
    TemporaryFolder source;
    writeFile(source / "file", pattern(100));
    symlink("to", (source / "link").c_str());
    const Image image("-t ext4 -b 4096 -I 256 -O inline_data", "16M", source / "");
    const Host host(image);
    const std::uint64_t file = host.find("/file");
    const auto pieces = host.extents(file);
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_EQ(pieces[0].flags, FSO_EXTENT_INLINE | 60U << FSO_EXTENT_INLINE_LENGTH_SHIFT);
    EXPECT_EQ(pieces[0].length, 60U);
    EXPECT_EQ(pieces[1].flags,
              FSO_EXTENT_INLINE | FSO_EXTENT_LAST | 40U << FSO_EXTENT_INLINE_LENGTH_SHIFT);
    EXPECT_EQ(host.bytes.substr(pieces[1].offset, 40), pattern(100).substr(60));

    fso_extent rest;
    std::uint32_t count = 0;
    ASSERT_EQ(host.object->getExtents(file, 70, &rest, 1, &count), FSO_OK);
    EXPECT_EQ(rest.offset, pieces[1].offset + 10);
    EXPECT_EQ(rest.flags >> FSO_EXTENT_INLINE_LENGTH_SHIFT, 30U);
    EXPECT_EQ(host.object->getExtents(file, 100, &rest, 1, &count), FSO_INVALID);
    EXPECT_EQ(host.extents(host.find("/link"))[0].length, 2U);
}

TEST(ExtentsTest, EncryptedFilesAreMarked) {
    TemporaryFolder source;
    writeFile(source / "file", pattern(5000));
    const Image image("-t ext4 -b 4096 -O encrypt", "16M", source / "");
    image.change("sif file flags 0x80800");
    const Host host(image);
    EXPECT_EQ(host.extents(host.find("/file"))[0].flags, FSO_EXTENT_ENCODED | FSO_EXTENT_LAST);
}

} // namespace
