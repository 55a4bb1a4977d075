// What the file-system record, file records and metadata say.
#include "Image.h"

#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(RecordsTest, FileSystem) {
    const Image image("-t ext4 -b 1024 -L sixteen-bytes-ok -N 512", "8M");
    const Host host(image);
    fso_fs_record fs;
    ASSERT_EQ(host.object->statFs(&fs), FSO_OK);
    EXPECT_EQ(fs.state, 0U);
    EXPECT_EQ(fs.blockSize, 1024U);
    EXPECT_EQ(fs.blockCount, 8192U);
    EXPECT_EQ(fs.usedBlocks, fs.blockCount - fs.freeBlocks);
    EXPECT_EQ(fs.fileCount, 512U);
    EXPECT_EQ(fs.freeFiles, 512U - 11U);
    EXPECT_EQ(std::memcmp(fs.uuid, "\x6a\x1f\x7d\x5e\x3c\x1b", 6), 0);
    EXPECT_STREQ(fs.volumeName, "sixteen-bytes-ok");
    EXPECT_EQ(fs.maxNameLength, 255U);
}

TEST(RecordsTest, OwnersTimesAndDevices) {
    const Image image = Image::withFile("-t ext4 -b 1024", "8M", pattern(3000));
    image.change("sif file uid 70001\nsif file gid 80002\n"
                 "sif file atime 0xfffffff0\nsif file atime_extra 0x0\n"
                 "sif file mtime 5\nsif file mtime_extra 0xEE6B27FD\n"
                 "sif file crtime 1000\nsif file crtime_extra 0x4\n"
                 "mknod small c 8 17\nmknod wide b 300 60000\nmknod pipe p");
    const Host host(image);
    const fso_file_record file = host.open(host.find("/file"));
    EXPECT_EQ(file.owner, 70001U | std::uint64_t{80002} << 32);
    EXPECT_EQ(file.mode & 0xF000, 0x8000U);
    EXPECT_EQ(file.size, 3000U);
    EXPECT_EQ(file.blocks, 6U);
    EXPECT_EQ(file.linkCount, 1U);
    EXPECT_EQ(file.index, host.find("/file"));
    EXPECT_EQ(file.accessTime.seconds, -16); // before 1970
    EXPECT_EQ(file.accessTime.fraction, 0U);
    EXPECT_EQ(file.modifyTime.seconds, 5); // and 2^32 more, in the year 2106
    EXPECT_EQ(file.modifyTime.fraction, 999999999U | 1U << 30);
    EXPECT_EQ(file.createTime.seconds, 1000);
    EXPECT_EQ(file.createTime.fraction, 1U);

    EXPECT_EQ(host.open(host.find("/small")).device, std::uint64_t{8} << 32 | 17);
    EXPECT_EQ(host.open(host.find("/wide")).device, std::uint64_t{300} << 32 | 60000);
    for (const char* path : {"/small", "/wide", "/pipe"}) {
        const auto runs = host.extents(host.find(path));
        ASSERT_EQ(runs.size(), 1U);
        EXPECT_EQ(runs[0], (fso_extent{0, 0, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0}));
    }
}

TEST(RecordsTest, SmallInodesKeepNoCreationTimeAndHugeFilesCountBlocks) {
    const Image image = Image::withFile("-t ext4 -b 4096 -I 128", "16M", pattern(3000));
    image.change("sif file flags 0xC0000\nsif file blocks 3");
    const Host host(image);
    const fso_file_record file = host.open(host.find("/file"));
    EXPECT_EQ(file.createTime.seconds, 0);
    EXPECT_EQ(file.modifyTime.fraction, 0U);
    EXPECT_EQ(file.blocks, 24U);
}

TEST(RecordsTest, IndexesThatNameNoFile) {
    const Image image("-t ext4 -b 1024 -N 512", "8M");
    const Host host(image);
    fso_file_record record;
    std::uint32_t flags = 0;
    // Out of range, the file system's own, and free ones.
    for (const std::uint64_t index : {0ULL, 1ULL, 7ULL, 8ULL, 12ULL, 512ULL, 513ULL, 1ULL << 32 | 2,
                                      static_cast<unsigned long long>(FSO_NO_INDEX)}) {
        EXPECT_EQ(host.object->openFile(index, &record, &flags), FSO_NOT_FOUND) << index;
        EXPECT_EQ(host.object->closeFile(index), FSO_OK);
        EXPECT_EQ(host.object->closeFile(index), FSO_OK);
    }
    EXPECT_EQ(host.object->openFile(2, &record, &flags), FSO_OK);
    EXPECT_EQ(host.object->openFile(11, &record, &flags), FSO_OK);
}

TEST(RecordsTest, MetadataLivesUntilTheLastClose) {
    TemporaryFolder source;
    const std::string target(900, 't');
    symlink(target.c_str(), (source / "link").c_str());
    const Image image("-t ext4 -b 1024 -I 256", "8M", source / "");
    image.change("ea_set link user.note " + std::string(300, 'v'));
    const auto textOf = [](const fso_metadata_piece& piece) {
        return std::string(reinterpret_cast<const char*>(piece.address), piece.length);
    };
    const Host host(image);
    const std::uint64_t link = host.find("/link");
    fso_file_record record;
    fso_metadata metadata;
    std::uint32_t flags = 0;
    ASSERT_EQ(host.object->openFile(link, &record, &flags), FSO_OK);
    ASSERT_EQ(host.object->openFile(link, &record, &flags), FSO_OK);
    ASSERT_EQ(host.object->getMetadata(link, &metadata), FSO_OK);
    host.object->closeFile(link);
    host.walk(); // other inodes take the place of this one
    EXPECT_EQ(textOf(metadata.linkTarget), target);
    EXPECT_NE(host.bytes.find(textOf(metadata.inode)), std::string::npos);
    EXPECT_EQ(metadata.inode.length, 256U);
    EXPECT_NE(textOf(metadata.attributeBlock).find(std::string(300, 'v')), std::string::npos);
    host.object->closeFile(link);
    EXPECT_EQ(host.object->getMetadata(link, &metadata), FSO_INVALID);
    EXPECT_EQ(metadata.inode.address, 0U);
}

} // namespace
