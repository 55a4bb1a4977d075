// What the file-system record, file records and metadata say.
#include "Image.h"

#include <gtest/gtest.h>

namespace {

TEST(RecordsTest, FileSystem) {
    const Image image("-t ext4 -b 1024 -L sixteen-bytes-ok -N 512");
    image.change("feature needs_recovery\nssv state 2");
    const Host host(image);
    EXPECT_TRUE(host.logged("served as it lies"));
    EXPECT_EQ(host.log[0].back(), '\n');
    fso_fs_record fs;
    ASSERT_EQ(host.object->statFs(&fs), FSO_OK);
    EXPECT_EQ(fs.state, FSO_FS_NEEDS_RECOVERY | FSO_FS_HAS_ERRORS);
    EXPECT_EQ(fs.blockCount, 8192U);
    EXPECT_EQ(fs.fileCount, 512U);
    EXPECT_EQ(fs.freeFiles, 512U - 11U);
    EXPECT_STREQ(fs.volumeName, "sixteen-bytes-ok");
    EXPECT_EQ(fs.maxNameLength, 255U);
}

TEST(RecordsTest, TimesAndFilesWithoutContent) {
    const Image image = Image::withFile("-t ext4 -b 1024", "x");
    image.change("sif file atime 0xfffffff0\nsif file atime_extra 0x0\n"
                 "sif file mtime 5\nsif file mtime_extra 0xEE6B27FD\nmknod small c 8 17");
    Host host(image);
    const fso_file_record file = host.open(FILE_INDEX);
    EXPECT_EQ(file.accessTime.seconds, -16); // before 1970
    EXPECT_EQ(file.accessTime.fraction, 0U);
    EXPECT_EQ(file.modifyTime.seconds, 5); // and 2^32 more, in the year 2106
    EXPECT_EQ(file.modifyTime.fraction, 999999999U | 1U << 30);
    const auto runs = host.extents(FILE_INDEX + 1);
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0], (fso_extent{0, 0, FSO_EXTENT_HOLE | FSO_EXTENT_LAST, 0}));
}

TEST(RecordsTest, IndexesThatNameNoFile) {
    Host host(Image("-t ext4 -b 1024 -N 512"));
    // Out of range, the file system's own, and free ones.
    for (const std::uint64_t index : {0ULL, 1ULL, 7ULL, 8ULL, 12ULL, 512ULL, 513ULL, 1ULL << 32 | 2,
                                      static_cast<unsigned long long>(FSO_NO_INDEX)}) {
        host.open(index);
        EXPECT_EQ(host.status, FSO_NOT_FOUND) << index;
        EXPECT_EQ(host.object->closeFile(index), FSO_OK); // once more than it was opened
    }
    for (const std::uint64_t index : {ROOT, ROOT + 9}) {
        host.open(index);
        EXPECT_EQ(host.status, FSO_OK);
    }
}

TEST(RecordsTest, AnEncryptedTargetIsLeftOut) {
    const Image image("-t ext4 -b 1024", "ln -s " + std::string(100, 't') + " link");
    image.change("sif link flags 0x80800"); // encrypted, in extents
    const Host host(image);
    fso_file_record record;
    fso_metadata metadata;
    std::uint32_t flags = 0;
    EXPECT_EQ(host.object->openFile(FILE_INDEX, &record, &flags), FSO_OK);
    EXPECT_EQ(host.object->getMetadata(FILE_INDEX, &metadata), FSO_OK);
    EXPECT_EQ(metadata.linkTarget.address, 0U);
    EXPECT_TRUE(host.logged("the link's target is left out"));
}

TEST(RecordsTest, MetadataLivesUntilTheLastClose) {
    const std::string target(900, 't');
    const Image image("-t ext4 -b 1024 -I 256", "ln -s " + target + " link");
    image.change("ea_set link user.note " + std::string(300, 'v'));
    const auto textOf = [](const fso_metadata_piece& piece) {
        return std::string(reinterpret_cast<const char*>(piece.address), piece.length);
    };
    Host host(image);
    fso_file_record record;
    fso_metadata metadata;
    std::uint32_t flags = 0;
    EXPECT_EQ(host.object->openFile(FILE_INDEX, &record, &flags), FSO_OK);
    EXPECT_EQ(host.object->openFile(FILE_INDEX, &record, &flags), FSO_OK);
    ASSERT_EQ(host.object->getMetadata(FILE_INDEX, &metadata), FSO_OK);
    host.object->closeFile(FILE_INDEX);
    for (std::uint64_t index = 0; index < 100; ++index) {
        host.open(index); // other inodes take the place of this one
    }
    EXPECT_EQ(textOf(metadata.linkTarget), target);
    EXPECT_NE(host.bytes.find(textOf(metadata.inode)), std::string::npos);
    EXPECT_EQ(metadata.inode.length, 256U);
    EXPECT_NE(textOf(metadata.attributeBlock).find(std::string(300, 'v')), std::string::npos);
    host.object->closeFile(FILE_INDEX);
    EXPECT_EQ(host.object->getMetadata(FILE_INDEX, &metadata), FSO_INVALID);
    EXPECT_EQ(metadata.inode.address, 0U);
}

} // namespace
