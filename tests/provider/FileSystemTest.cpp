// The file system object and its files: what they answer from the library's records.
#include "ProviderFixture.h"

#include "RvpFsoFile.h"
#include "RvpFsoFileSystem.h"
#include "RvpFsoFileSystemMgr.h"

#include <cerrno>

namespace {

using Words = std::vector<uint64_t>;

class ObjectTest : public VolumeTest {
  protected:
    int control(int command, void* argument) {
        return rvp_map_objctl(instance, volume, command, argument);
    }

    int getExtents(int capacity) {
        log.clear();
        done = 0;
        return rvp_map_get_extent(instance, file, 300, extents, capacity, &count, &done,
                                  reinterpret_cast<kmp_mapdomain_node*>(0x10));
    }

    // Opens the file again, after its record changed.
    void reopen() {
        close(file);
        file = openFile(volume);
    }

    kmp_obj* file = openFile(volume);
    kmp_fs fs = {};
    kmp_file stat = {};
    kmp_obj_prop* property = nullptr;
    uint32_t one = 0;
    kmp_extent extents[4] = {};
    int count = -1;
    int done = -1;
};

TEST_F(ObjectTest, FileSystemCopiesTheLibrarysRecord) {
    script.fs = {FSO_FS_EXT4, FSO_FS_HAS_ERRORS, 4096,    16,  24, 32, 40, 48,
                 100,         {'u', 'u'},        "label", 255, 9};
    volume = openVolume();
    std::memset(&fs, 0xAA, sizeof fs);
    ASSERT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    EXPECT_THAT((Words{fs.type, fs.state, fs.preferredBlockSize, fs.blockSize, fs.usedBlocks,
                       fs.blockCount, fs.freeBlocks, fs.freeFiles, fs.fileCount, fs.volumeId,
                       fs.maxNameLength, fs.reserved0[0]}),
                ElementsAre(4, 2, 32768, 4096, 16, 24, 32, 40, 128, 0x7575, 255, 0));
    EXPECT_STREQ(fs.nameSpace, "dorado");
    ASSERT_EQ(rvp_map_get_obj_prop(instance, volume, &property), 0);
    EXPECT_THAT((Words{property->kind, property->blockSize, property->size, property->value104,
                       property->value112}),
                ElementsAre(7, 4096, 4096 * 24, 1, 1));
    char* text = nullptr;
    EXPECT_EQ(control(KMP_OCVOLUMENAME, &text), 0);
    EXPECT_STREQ(text, "label");
    EXPECT_EQ(control(KMP_OCVOLUMEUUID, &text), 0);
    EXPECT_STREQ(text, "uu");

    script.fs.blockSize = 65536;
    script.fs.fileCount = 128;
    ASSERT_EQ(rvp_map_stat_fs(instance, openVolume(), &fs), 0);
    EXPECT_EQ(fs.preferredBlockSize, 65536U) << "large blocks and round counts are kept";
    EXPECT_EQ(fs.fileCount, 128U);
}

TEST_F(ObjectTest, FileSystemAnswersControlCommands) {
    for (const int command : {KMP_OCTRAVERSETYPE, KMP_OCTRAVERSEATTRIBUTE}) {
        one = 0;
        EXPECT_EQ(control(command, &one), 0);
        EXPECT_EQ(one, 1U);
    }
    for (int command = KMP_OCVOLUMENAME; command <= KMP_OCTRAVERSEATTRIBUTE; ++command) {
        EXPECT_EQ(control(command, nullptr), 3) << command;
    }
    EXPECT_EQ(control(KMP_OCGETEXTFS, nullptr), 4);
    EXPECT_EQ(control(KMP_OCSETEXTFS, nullptr), 4);
    EXPECT_THAT(log.lines(), Contains("rvpMapObjCtl:RvpFsoCoordinator <TRACE> Object: VOL1 cmd:2"));
    EXPECT_THAT(log.lines(),
                Contains("objCtl:RvpFsoFileSystem <ERROR> KMP_OCGETEXTFS/KMP_OCSETEXTFS "
                         "Operation not supported"));
    EXPECT_EQ(control(77, nullptr), 3);
    EXPECT_THAT(log.lines(),
                Contains("objCtl:RvpFsoFileSystem <ERROR> Unsupported option. cmd = 77 "));
    uint64_t root = 7;
    script.status["rootIndex"] = FSO_IO;
    EXPECT_EQ(control(KMP_OCROOTINDEX, &root), 0) << "the status is not looked at";
    EXPECT_EQ(root, 0U);
}

TEST_F(ObjectTest, FileSystemOpenedForWritingAnswersOnlyStatistics) {
    volume = openVolume(KMP_OPEN_WRITE);
    kmp_obj* opened = volume;
    EXPECT_EQ(rvp_map_stat_fs(instance, volume, &fs), 4);
    EXPECT_EQ(rvp_map_get_obj_prop(instance, volume, &property), 4);
    EXPECT_EQ(control(KMP_OCTRAVERSETYPE, &one), 4);
    EXPECT_EQ(rvp_map_open_file_index(instance, volume, 5, &opened, 1, &flags, nullptr), 4);
    EXPECT_EQ(opened, volume) << "untouched before a file is made";
    kmp_stats stats;
    EXPECT_EQ(rvp_map_get_obj_stats(instance, volume, &stats), 0);
    EXPECT_EQ(stats.values[179], 0U);
    EXPECT_EQ(rvp_map_fs_exclude_unallocated(instance, volume), 0);
}

TEST_F(ObjectTest, FileSystemWithoutARecordAnswersAlmostNothing) {
    auto& whole = *static_cast<RvpFsoFileSystem*>(volume->provider);
    script.calls.clear();
    EXPECT_EQ(whole.init(4096, whole.fso), 0);
    EXPECT_THAT(script.calls, IsEmpty()) << "the record is read once";
    EXPECT_THAT(log.lines(),
                Contains("init:RvpFsoFileSystem <WARN> FS object is already initialized"));

    RvpFsoFileSystem empty("");
    ASSERT_EQ(empty.openFileSystem(&volume, KMP_OPEN_READ, &flags), 0);
    EXPECT_EQ(empty.objCtl(KMP_OCVOLUMENAME, nullptr), 11);
    EXPECT_EQ(empty.objCtl(KMP_OCVOLUMEUUID, nullptr), 11);
    EXPECT_EQ(empty.objCtl(KMP_OCTRAVERSEATTRIBUTE, &one), 0);
    EXPECT_EQ(empty.statFs(&fs), 0);
    EXPECT_EQ(fs.preferredBlockSize, 0U);
}

TEST(PlainObject, SupportsNothingButLists) {
    RvpFsoObject object(1, "o");
    EXPECT_THAT((std::vector{object.getExtent({}, {}, {}, {}, {}, {}), object.getObjProp({}),
                             object.getObjStats({}), object.getSubObjLinkProp({}, {}),
                             object.objCtl({}, {}), object.read({}, {}), object.readDir({}, {}),
                             object.statFile({}), object.statFs({}), object.write({}, {})}),
                testing::Each(KMP_ENOTSUP));
    // One copy of equal records, the newest in front.
    kmp_obj_link_prop other = {};
    other.reserved0[15] = 1;
    kmp_obj_link_prop* first = object.getLinkPropFromList({});
    kmp_obj_link_prop* second = object.getLinkPropFromList(other);
    EXPECT_EQ(object.getLinkPropFromList({}), first);
    EXPECT_EQ(object.linkPropList.count, 2U);
    EXPECT_EQ(&object.linkPropList.head->value, second);
    EXPECT_EQ(object.linkPropList.tail->prev, object.linkPropList.head);
    EXPECT_EQ(object.getObjPropFromList({}), object.getObjPropFromList({}));
}

TEST_F(ObjectTest, FileRoundsExtentLengthsUpToTheSector) {
    script.extents = {{4096, 1000, 7, 0}, {8192, 1024, 0x80000010, 0}, {0, 0, 0, 0}};
    script.extentCount = 3;
    std::memset(extents, 0xAA, sizeof extents);
    ASSERT_EQ(getExtents(4), 0);
    EXPECT_EQ(log.lines()[1], "getExtent:RvpFsoFile <ERROR> Unable to get the extent, length = 0, "
                              "index = 12, extentNum = 2");
    EXPECT_EQ(script.offset, 300U);
    EXPECT_EQ(done, 1);
    EXPECT_STREQ(extents[0].volume->name, "VOL1");
    EXPECT_THAT((Words{extents[0].offset, extents[0].length, extents[0].flags, extents[1].length,
                       extents[1].flags, extents[1].reserved0[0]}),
                ElementsAre(4096, 1024, 7, 1024, 0x80000010, 0xAA));
}

TEST_F(ObjectTest, FileChecksTheCountBeforeTheStatus) {
    script.status["getExtents"] = FSO_NOT_PERMITTED;
    for (const uint32_t reported : {0U, 3U, 0x80000000U}) {
        script.extentCount = reported;
        EXPECT_EQ(getExtents(2), 1);
        EXPECT_EQ(log.lines()[1], "getExtent:RvpFsoFile <ERROR> Exception: VERIFY_ORMA_BOOL");
    }
    EXPECT_EQ(getExtents(-1), 3);
    EXPECT_EQ(log.lines()[1], "getExtent:RvpFsoFile <ERROR> Exception: VERIFY_PTR");

    script.extentCount = 1;
    const int expected[] = {3, 11, 11, 4, 5, 7, 12, 13, 14, 15, 11, 1, 1};
    for (uint32_t status = 1; status <= 13; ++status) {
        script.status["getExtents"] = status;
        EXPECT_EQ(getExtents(1), expected[status - 1]) << status;
        EXPECT_EQ(done, 1);
    }
}

TEST_F(ObjectTest, FileCopiesTheLibrarysRecord) {
    script.file = {S_IFREG | 0640, 2, 0x0000006400000064, 12345, 24, 40, {-1, 1}, {2, 3}, {4, 5},
                   {6, 7},         80};
    reopen();
    std::memset(&stat, 0xAA, sizeof stat);
    ASSERT_EQ(rvp_map_stat_file(instance, file, &stat), 0);
    EXPECT_THAT((Words{stat.mode, stat.linkCount, stat.type, stat.owner, stat.size, stat.blocks,
                       stat.device, stat.index, stat.reserved0[0]}),
                ElementsAre(S_IFREG | 0640U, 2, 1, 0x0000006400000064, 12345, 24, 40, 80, 0));
    EXPECT_THAT((Words{stat.accessTime.seconds, stat.accessTime.fraction, stat.modifyTime.seconds,
                       stat.modifyTime.fraction, stat.changeTime.seconds, stat.changeTime.fraction,
                       stat.createTime.seconds, stat.createTime.fraction}),
                ElementsAre(2208988799, 1, 2208988802, 3, 2208988804, 5, 2208988806, 7));
    ASSERT_EQ(rvp_map_get_obj_prop(instance, file, &property), 0);
    EXPECT_EQ(property->kind, 6U);
    EXPECT_EQ(property->size, 12345U);
}

TEST_F(ObjectTest, FileTypesAreTheHosts) {
    const std::pair<unsigned, unsigned> types[] = {{S_IFREG, 1}, {S_IFDIR, 2}, {S_IFBLK, 3},
                                                   {S_IFCHR, 4}, {S_IFLNK, 5}, {S_IFIFO, 6},
                                                   {0, 10},      {S_IFSOCK, 6}};
    for (const auto& [mode, type] : types) {
        script.file.mode = mode | 0644;
        script.file.size = 4096;
        reopen();
        EXPECT_EQ(flags, type < 3 || type > 6 ? 0 : KMP_OPEN_SPECIAL) << mode;
        ASSERT_EQ(rvp_map_stat_file(instance, file, &stat), 0);
        EXPECT_EQ(stat.type, type);
        EXPECT_EQ(stat.size, type == 2 ? 0U : 4096U) << "directories report no size";
    }
}

TEST_F(ObjectTest, FileListsDirectoriesOnly) {
    kmp_io_req request = {};
    request.buffer = 0x1000;
    request.bufferSize = 64;
    request.position = 7;
    unsigned long entries = 0xAAAAAAAA00000000UL;
    errno = ENOTDIR;
    EXPECT_EQ(rvp_map_readdir(instance, file, &request, &entries), 4096 + ENOTDIR);
    EXPECT_EQ(listener.heard.back().english, "Unknown error");

    script.file.mode = S_IFDIR | 0700;
    reopen();
    EXPECT_EQ(rvp_map_readdir(instance, file, &request, &entries), 0);
    EXPECT_THAT((Words{script.dirRequest.buffer, script.dirRequest.bufferSize,
                       script.dirRequest.position, request.resultCount, request.error}),
                ElementsAre(0x1000, 64, 7, 48, 0));
    EXPECT_EQ(entries, 0xAAAAAAAA00000003UL) << "the library counts in the low half";
    script.status["readDir"] = FSO_NO_MEMORY;
    EXPECT_EQ(rvp_map_readdir(instance, file, &request, &entries), 5);
    EXPECT_EQ(request.error, 5U);
}

TEST_F(ObjectTest, FileHandsOutTheLibrarysMetadata) {
    script.file.accessTime.fraction = 010;
    script.file.modifyTime.fraction = 07;
    script.file.createTime.fraction = ~0U;
    reopen();
    kmp_extfile found = {};
    ASSERT_EQ(rvp_map_objctl(instance, file, KMP_OCGETEXTFILE, &found), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(found.text.address),
                 "         7:        10:37777777777:");
    EXPECT_THAT((Words{found.text.length, found.text.count, found.first.address,
                       found.second.length, found.third.address, found.third.count}),
                ElementsAre(35, 1, 1, 4, 5, 1));
    EXPECT_EQ(rvp_map_objctl(instance, file, KMP_OCGETEXTFILE, nullptr), 3);
    EXPECT_EQ(rvp_map_objctl(instance, file, 1000, &found), 4);
    script.status["getMetadata"] = FSO_IO;
    EXPECT_EQ(rvp_map_objctl(instance, file, KMP_OCGETEXTFILE, nullptr), 11);
}

// A library may throw the provider's own errors.
TEST_F(ObjectTest, FileThatIsNotAllocatedHasNoResultLineOfTheEntryPoint) {
    for (const int code : {2058, 2072}) {
        script.thrown = code;
        log.clear();
        kmp_obj* failed = volume;
        EXPECT_EQ(rvp_map_open_file_index(instance, volume, 7, &failed, 1, &flags, nullptr), code);
        EXPECT_EQ(failed, nullptr);
        EXPECT_EQ(log.lines().back(), "rvpMapOpenFileIndex:RvpFsoCoordinator <WARN> Returning: " +
                                          std::to_string(code));
        EXPECT_THAT(log.lines(), Each(Not(StartsWith("openFileIndex:RvpFsoFileSystem"))));
    }
}

TEST_F(ObjectTest, FileIsClosedInTheLibraryEvenIfItDidNotOpen) {
    script.status = {{"openFile", FSO_UNSUPPORTED}, {"closeFile", FSO_IO}};
    script.calls.clear();
    kmp_obj* failed = volume;
    EXPECT_EQ(rvp_map_open_file_index(instance, volume, 7, &failed, 1, &flags, nullptr), 11);
    EXPECT_EQ(failed, nullptr);
    closeRvpFsoFile(new RvpFsoFile(static_cast<RvpFsoFileSystem*>(volume->provider), 5));
    EXPECT_THAT(script.calls, ElementsAre("openFile", "closeFile", "closeFile"));
    EXPECT_EQ(close(file), 0);
    EXPECT_EQ(log.lines().back(),
              "~RvpFsoFile:RvpFsoFile <WARN> Failed to close file index, index = 12");
}

} // namespace
