// The file system object: what it answers from the library's record.
#include "ProviderFixture.h"

#include "Error.h"
#include "RvpFsoFile.h"
#include "RvpFsoFileSystem.h"

#include <cstring>

namespace {

using testing::ElementsAre;

class FileSystemTest : public ProviderTest {
  protected:
    void SetUp() override {
        start();
        claim();
    }

    int control(kmp_obj* volume, int command, void* argument) {
        return rvp_map_objctl(instance, volume, command, argument);
    }
};

TEST_F(FileSystemTest, CopiesTheLibrarysRecord) {
    script->fs = {FSO_FS_EXT4, FSO_FS_HAS_ERRORS, 4096, 16, 24, 32, 40, 48, 100,
                  {},          "label",           255,  9};
    for (uint8_t i = 0; i < 16; ++i) {
        script->fs.uuid[i] = static_cast<uint8_t>(0xF0 + i);
    }
    kmp_obj* volume = openVolume();
    kmp_fs fs;
    std::memset(&fs, 0xAA, sizeof fs);
    ASSERT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    EXPECT_EQ(fs.type, FSO_FS_EXT4);
    EXPECT_EQ(fs.state, FSO_FS_HAS_ERRORS);
    EXPECT_EQ(fs.preferredBlockSize, 32768U);
    EXPECT_EQ(fs.blockSize, 4096U);
    EXPECT_EQ(fs.usedBlocks, 16U);
    EXPECT_EQ(fs.blockCount, 24U);
    EXPECT_EQ(fs.freeBlocks, 32U);
    EXPECT_EQ(fs.freeFiles, 40U);
    EXPECT_EQ(fs.fileCount, 128U) << "rounded up to 64";
    EXPECT_EQ(fs.volumeId, 0xF7F6F5F4F3F2F1F0U);
    EXPECT_STREQ(fs.nameSpace, "dorado");
    EXPECT_EQ(fs.maxNameLength, 255U);
    EXPECT_EQ(fs.reserved0[0], 0);

    char* name = nullptr;
    uint8_t* uuid = nullptr;
    uint64_t root = 0;
    uint32_t one = 0;
    EXPECT_EQ(control(volume, KMP_OCVOLUMENAME, &name), 0);
    EXPECT_STREQ(name, "label");
    EXPECT_EQ(control(volume, KMP_OCVOLUMEUUID, &uuid), 0);
    EXPECT_EQ(std::memcmp(uuid, script->fs.uuid, 16), 0);
    EXPECT_EQ(control(volume, KMP_OCROOTINDEX, &root), 0);
    EXPECT_EQ(root, 2U);
    script->rootStatus = FSO_IO;
    EXPECT_EQ(control(volume, KMP_OCROOTINDEX, &root), 0);
    EXPECT_EQ(root, 0U) << "the status is not looked at";
    EXPECT_EQ(control(volume, KMP_OCROOTINDEX, nullptr), 3);
    EXPECT_EQ(control(volume, KMP_OCTRAVERSETYPE, &one), 0);
    EXPECT_EQ(one, 1U);
    EXPECT_EQ(control(volume, KMP_OCTRAVERSEATTRIBUTE, &one), 0);

    kmp_obj_prop* property = nullptr;
    kmp_obj_prop* again = nullptr;
    ASSERT_EQ(rvp_map_get_obj_prop(instance, volume, &property), 0);
    ASSERT_EQ(rvp_map_get_obj_prop(instance, volume, &again), 0);
    EXPECT_EQ(property, again);
    EXPECT_EQ(property->kind, 7U);
    EXPECT_EQ(property->blockSize, 4096U);
    EXPECT_EQ(property->size, 4096U * 24);
    EXPECT_EQ(property->value104, 1U);
    EXPECT_EQ(property->value112, 1U);

    kmp_stats stats;
    std::memset(&stats, 0xAA, sizeof stats);
    ASSERT_EQ(rvp_map_get_obj_stats(instance, volume, &stats), 0);
    EXPECT_EQ(stats.values[179], 0U);

    log.clear();
    EXPECT_EQ(control(volume, KMP_OCSETEXTFS, nullptr), 4);
    EXPECT_EQ(control(volume, 77, nullptr), 3);
    EXPECT_THAT(log.lines(),
                ElementsAre("rvpMapObjCtl:RvpFsoCoordinator <TRACE> Object: VOL1 cmd:2",
                            "objCtl:RvpFsoFileSystem <ERROR> KMP_OCGETEXTFS/KMP_OCSETEXTFS "
                            "Operation not supported",
                            "objCtl:RvpFsoFileSystem <DEBUG> Returning: KMP_ENOTSUP",
                            "rvpMapObjCtl:RvpFsoCoordinator <DEBUG> Returning: KMP_ENOTSUP",
                            "rvp_map_objctl:libdorado <DEBUG> Returning: KMP_ENOTSUP",
                            "rvpMapObjCtl:RvpFsoCoordinator <TRACE> Object: VOL1 cmd:77",
                            "objCtl:RvpFsoFileSystem <ERROR> Unsupported option. cmd = 77 ",
                            "objCtl:RvpFsoFileSystem <WARN> Returning: 3",
                            "rvpMapObjCtl:RvpFsoCoordinator <WARN> Returning: 3",
                            "rvp_map_objctl:libdorado <WARN> Returning: 3"));
    rvp_map_close(instance, volume);
}

TEST_F(FileSystemTest, LargeBlocksAndRoundFileCountsAreKept) {
    script->fs.blockSize = 65536;
    script->fs.fileCount = 128;
    kmp_obj* volume = openVolume();
    kmp_fs fs;
    ASSERT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    EXPECT_EQ(fs.preferredBlockSize, 65536U);
    EXPECT_EQ(fs.fileCount, 128U);
    rvp_map_close(instance, volume);
}

TEST_F(FileSystemTest, WithoutReadAccessOnlyTheStatisticsAnswer) {
    kmp_obj* volume = openVolume("VOL1", KMP_OPEN_WRITE);
    kmp_fs fs;
    kmp_obj_prop* property = nullptr;
    kmp_stats stats;
    uint32_t one = 0;
    kmp_obj* file = reinterpret_cast<kmp_obj*>(0x10);
    int flags = 0;
    EXPECT_EQ(rvp_map_stat_fs(instance, volume, &fs), 4);
    EXPECT_EQ(rvp_map_get_obj_prop(instance, volume, &property), 4);
    EXPECT_EQ(control(volume, KMP_OCTRAVERSETYPE, &one), 4);
    EXPECT_EQ(rvp_map_open_file_index(instance, volume, 5, &file, 1, &flags, nullptr), 4);
    EXPECT_EQ(file, reinterpret_cast<kmp_obj*>(0x10)) << "untouched before a file is made";
    EXPECT_EQ(rvp_map_get_obj_stats(instance, volume, &stats), 0);
    rvp_map_close(instance, volume);
}

TEST_F(FileSystemTest, OpensFilesByIndex) {
    kmp_obj* volume = openVolume();
    kmp_obj* file = openFile(volume, 99);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(script->index, 99U);
    EXPECT_STREQ(file->name, "unnamed dorado file");
    EXPECT_EQ(rvp_map_close(instance, file), 0);

    int flags = 0;
    EXPECT_EQ(rvp_map_open_file_index(instance, volume, ~0UL, &file, 1, &flags, nullptr), 4);
    script->openFileStatus = FSO_UNSUPPORTED;
    script->calls.clear();
    log.clear();
    EXPECT_EQ(rvp_map_open_file_index(instance, volume, 7, &file, 1, &flags, nullptr), 11);
    EXPECT_EQ(file, nullptr);
    EXPECT_THAT(script->calls, ElementsAre("openFile", "closeFile"))
        << "closed in the library though it failed to open";
    EXPECT_THAT(log.lines(),
                ElementsAre("rvpMapOpenFileIndex:RvpFsoCoordinator <TRACE> XFS Object Name: VOL1",
                            "openFileIndex:RvpFsoFileSystem <WARN> Returning: 11",
                            "rvpMapOpenFileIndex:RvpFsoCoordinator <WARN> Returning: 11",
                            "rvp_map_open_file_index:libdorado <WARN> Returning: 11"));
    rvp_map_close(instance, volume);
}

TEST(UninitialisedFileSystem, AnswersAlmostNothing) {
    LogCapture log;
    RvpFsoFileSystem fileSystem("");
    EXPECT_EQ(fileSystem.volumeId, nullptr);
    EXPECT_THROW(fileSystem.init(512, nullptr), OrmaError);
    kmp_obj* object = nullptr;
    int flags = 0;
    ASSERT_EQ(fileSystem.openFileSystem(&object, KMP_OPEN_READ, &flags), 0);
    char* name = nullptr;
    log.clear();
    EXPECT_EQ(fileSystem.objCtl(KMP_OCVOLUMENAME, &name), 11);
    EXPECT_THAT(log.lines(), ElementsAre("getVolumeName:RvpFsoFileSystem <WARN> Returning: 11",
                                         "objCtl:RvpFsoFileSystem <WARN> Returning: 11"));
    EXPECT_EQ(fileSystem.objCtl(KMP_OCVOLUMEUUID, &name), 11);
    uint32_t one = 0;
    EXPECT_EQ(fileSystem.objCtl(KMP_OCTRAVERSEATTRIBUTE, &one), 0);
    kmp_fs fs;
    EXPECT_EQ(fileSystem.statFs(&fs), 0);
    EXPECT_EQ(fs.preferredBlockSize, 0U);
}

// Where each field lies, as callers with their own declarations expect it.
TEST(ObjectLayout, IsFixed) {
    RvpFsoFileSystem fileSystem("v");
    const auto at = [&](const void* field) {
        return static_cast<const char*>(field) - reinterpret_cast<const char*>(&fileSystem);
    };
    EXPECT_EQ(at(&fileSystem.signature), 8);
    EXPECT_EQ(std::memcmp(fileSystem.signature, "XFSO", 4), 0);
    EXPECT_EQ(at(&fileSystem.objectType), 12);
    EXPECT_EQ(at(&fileSystem.obj), 16);
    EXPECT_EQ(at(&fileSystem.propList), 168);
    EXPECT_EQ(at(&fileSystem.linkPropList), 200);
    EXPECT_EQ(at(&fileSystem.volumeId), 232);
    EXPECT_EQ(at(&fileSystem.volumeName), 240);
    EXPECT_EQ(at(&fileSystem.openFlags), 272);
    EXPECT_EQ(at(&fileSystem.fsRecord), 280);
    EXPECT_EQ(at(&fileSystem.initialised), 400);
    EXPECT_EQ(at(&fileSystem.fso), 408);
    EXPECT_EQ(at(&fileSystem.sectorSize), 416);
    EXPECT_EQ(fileSystem.obj.provider, &fileSystem);
    EXPECT_EQ(sizeof(RvpFsoFile), 384U);
}

TEST(PropertyList, KeepsOneCopyOfEqualRecords) {
    RvpFsoObject object(1, "o");
    kmp_obj_link_prop first = {};
    kmp_obj_link_prop second = {};
    second.reserved0[15] = 1;
    kmp_obj_link_prop* kept = object.getLinkPropFromList(first);
    EXPECT_EQ(object.getLinkPropFromList(first), kept);
    EXPECT_EQ(object.linkPropList.count, 1U);
    EXPECT_NE(object.getLinkPropFromList(second), kept);
    EXPECT_EQ(object.linkPropList.count, 2U);
    EXPECT_EQ(object.linkPropList.head->value.reserved0[15], 1U);
    EXPECT_EQ(&object.linkPropList.tail->value, kept);
    EXPECT_EQ(object.linkPropList.tail->prev, object.linkPropList.head);
    EXPECT_EQ(object.getExtent(0, nullptr, 0, nullptr, nullptr, nullptr), 4);
    EXPECT_EQ(object.close(), 0);
    EXPECT_THROW(RvpFsoObject(1, nullptr), OrmaError);
}

} // namespace
