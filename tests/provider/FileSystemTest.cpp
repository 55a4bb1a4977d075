// The file system object: what it answers from the library's record.
#include "ProviderFixture.h"

#include "Error.h"
#include "RvpFsoFile.h"
#include "RvpFsoFileSystem.h"
#include "support/Layout.h"
#include "support/Raised.h"

#include <cstring>

namespace {

class FileSystemTest : public VolumeTest {
  protected:
    int control(int command, void* argument) {
        return rvp_map_objctl(instance, volume, command, argument);
    }

    kmp_fs fs = {};
    kmp_obj_prop* property = nullptr;
    kmp_stats stats = {};
    uint32_t one = 0;
    int flags = 0;
};

TEST_F(FileSystemTest, CopiesTheLibrarysRecord) {
    script->fs = {FSO_FS_EXT4, FSO_FS_HAS_ERRORS, 4096, 16, 24, 32, 40, 48, 100,
                  {},          "label",           255,  9};
    for (uint8_t i = 0; i < 16; ++i) {
        script->fs.uuid[i] = static_cast<uint8_t>(0xF0 + i);
    }
    volume = openVolume();
    std::memset(&fs, 0xAA, sizeof fs);
    ASSERT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    EXPECT_THAT(
        (std::vector{fs.type, fs.state, fs.preferredBlockSize, fs.blockSize, fs.usedBlocks,
                     fs.blockCount, fs.freeBlocks, fs.freeFiles, fs.fileCount, fs.volumeId}),
        ElementsAre(FSO_FS_EXT4, FSO_FS_HAS_ERRORS, 32768, 4096, 16, 24, 32, 40,
                    128, // rounded up to 64
                    0xF7F6F5F4F3F2F1F0));
    EXPECT_STREQ(fs.nameSpace, "dorado");
    EXPECT_EQ(fs.maxNameLength, 255U);
    EXPECT_EQ(fs.reserved0[0], 0);

    ASSERT_EQ(rvp_map_get_obj_prop(instance, volume, &property), 0);
    EXPECT_THAT((std::vector<uint64_t>{property->kind, property->blockSize, property->size,
                                       property->value104, property->value112}),
                ElementsAre(7, 4096, 4096 * 24, 1, 1));

    char* name = nullptr;
    EXPECT_EQ(control(KMP_OCVOLUMENAME, &name), 0);
    EXPECT_STREQ(name, "label");
    uint8_t* uuid = nullptr;
    EXPECT_EQ(control(KMP_OCVOLUMEUUID, &uuid), 0);
    EXPECT_EQ(std::memcmp(uuid, script->fs.uuid, 16), 0);

    script->fs.blockSize = 65536;
    script->fs.fileCount = 128;
    ASSERT_EQ(rvp_map_stat_fs(instance, openVolume(), &fs), 0);
    EXPECT_EQ(fs.preferredBlockSize, 65536U) << "large blocks and round counts are kept";
    EXPECT_EQ(fs.fileCount, 128U);
}

TEST_F(FileSystemTest, AnswersControlCommands) {
    uint64_t root = 0;
    EXPECT_EQ(control(KMP_OCROOTINDEX, &root), 0);
    EXPECT_EQ(root, 2U);
    script->rootStatus = FSO_IO;
    EXPECT_EQ(control(KMP_OCROOTINDEX, &root), 0);
    EXPECT_EQ(root, 0U) << "the status is not looked at";
    for (const int command : {KMP_OCTRAVERSETYPE, KMP_OCTRAVERSEATTRIBUTE}) {
        one = 0;
        EXPECT_EQ(control(command, &one), 0);
        EXPECT_EQ(one, 1U);
    }
    for (const int command : {KMP_OCROOTINDEX, KMP_OCTRAVERSETYPE, KMP_OCTRAVERSEATTRIBUTE,
                              KMP_OCVOLUMENAME, KMP_OCVOLUMEUUID}) {
        EXPECT_EQ(control(command, nullptr), 3) << command;
    }

    log.clear();
    EXPECT_EQ(control(KMP_OCSETEXTFS, nullptr), 4);
    EXPECT_EQ(control(77, nullptr), 3);
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

    std::memset(&stats, 0xAA, sizeof stats);
    ASSERT_EQ(rvp_map_get_obj_stats(instance, volume, &stats), 0);
    EXPECT_EQ(stats.values[179], 0U);
    EXPECT_EQ(rvp_map_fs_exclude_unallocated(instance, volume), 0);
}

TEST_F(FileSystemTest, WithoutReadAccessOnlyTheStatisticsAnswer) {
    volume = openVolume("VOL1", KMP_OPEN_WRITE);
    kmp_obj* file = volume;
    EXPECT_EQ(rvp_map_stat_fs(instance, volume, &fs), 4);
    EXPECT_EQ(rvp_map_get_obj_prop(instance, volume, &property), 4);
    EXPECT_EQ(control(KMP_OCTRAVERSETYPE, &one), 4);
    EXPECT_EQ(rvp_map_open_file_index(instance, volume, 5, &file, 1, &flags, nullptr), 4);
    EXPECT_EQ(file, volume) << "untouched before a file is made";
    EXPECT_EQ(rvp_map_get_obj_stats(instance, volume, &stats), 0);
}

TEST_F(FileSystemTest, OpensFilesByIndex) {
    kmp_obj* file = openFile(volume, 99);
    EXPECT_EQ(script->index, 99U);
    EXPECT_STREQ(file->name, "unnamed dorado file");

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
}

TEST_F(FileSystemTest, AnUninitialisedOneAnswersAlmostNothing) {
    RvpFsoFileSystem fileSystem("");
    EXPECT_EQ(fileSystem.volumeId, nullptr);
    EXPECT_EQ(raisedBy([&] { fileSystem.init(512, nullptr); }),
              "3 plugin/dorado/RvpFsoFileSystem init");
    kmp_obj* object = nullptr;
    ASSERT_EQ(fileSystem.openFileSystem(&object, KMP_OPEN_READ, &flags), 0);
    log.clear();
    EXPECT_EQ(fileSystem.objCtl(KMP_OCVOLUMENAME, nullptr), 11);
    EXPECT_THAT(log.lines(), ElementsAre("getVolumeName:RvpFsoFileSystem <WARN> Returning: 11",
                                         "objCtl:RvpFsoFileSystem <WARN> Returning: 11"));
    EXPECT_EQ(fileSystem.objCtl(KMP_OCVOLUMEUUID, nullptr), 11);
    EXPECT_EQ(fileSystem.objCtl(KMP_OCTRAVERSEATTRIBUTE, &one), 0);
    EXPECT_EQ(fileSystem.statFs(&fs), 0);
    EXPECT_EQ(fs.preferredBlockSize, 0U);
}

TEST_F(FileSystemTest, ASecondInitialisationTakesTheLibraryAndKeepsTheRecord) {
    auto* fileSystem = static_cast<RvpFsoFileSystem*>(volume->provider);
    script->calls.clear();
    log.clear();
    EXPECT_EQ(fileSystem->init(4096, fileSystem->fso), 0);
    EXPECT_EQ(fileSystem->sectorSize, 4096U);
    EXPECT_THAT(script->calls, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("init:RvpFsoFileSystem <WARN> FS object is already initialized"));
}

TEST(FileSystemLayout, Fields) {
    RvpFsoFileSystem v("v");
    EXPECT_THAT(offsetsIn(&v, v.signature, v.objectType, v.obj, v.propList, v.linkPropList,
                          v.volumeId, v.volumeName, v.openFlags, v.fsRecord, v.initialised, v.fso,
                          v.sectorSize),
                ElementsAre(8, 12, 16, 168, 200, 232, 240, 272, 280, 400, 408, 416));
    EXPECT_EQ(std::memcmp(v.signature, "XFSO", 4), 0);
    EXPECT_EQ(v.obj.provider, &v);
    EXPECT_EQ(sizeof(RvpFsoFile), 384U);
}

TEST(PlainObject, SupportsNothingButLists) {
    RvpFsoObject object(1, "o");
    EXPECT_EQ(object.close(), 0);
    EXPECT_THAT(
        (std::vector{object.checkConfigId(nullptr), object.getConfigId(nullptr, nullptr, nullptr),
                     object.getExtent(0, nullptr, 0, nullptr, nullptr, nullptr),
                     object.getObjProp(nullptr), object.getObjStats(nullptr),
                     object.getSubObjLinkProp(nullptr, nullptr), object.objCtl(0, nullptr),
                     object.read(nullptr, 0), object.readDir(nullptr, nullptr),
                     object.statFile(nullptr), object.statFs(nullptr), object.write(nullptr, 0)}),
        testing::Each(KMP_ENOTSUP));
    EXPECT_EQ(raisedBy([] { RvpFsoObject(1, nullptr); }),
              "3 plugin/dorado/RvpFsoObject RvpFsoObject");

    // One copy of equal records, the newest in front.
    kmp_obj_link_prop first = {};
    kmp_obj_link_prop second = {};
    second.reserved0[15] = 1;
    kmp_obj_link_prop* kept = object.getLinkPropFromList(first);
    EXPECT_EQ(object.getLinkPropFromList(first), kept);
    EXPECT_NE(object.getLinkPropFromList(second), kept);
    EXPECT_EQ(object.getLinkPropFromList(first), kept);
    EXPECT_EQ(object.linkPropList.count, 2U);
    EXPECT_EQ(object.linkPropList.head->value.reserved0[15], 1U);
    EXPECT_EQ(&object.linkPropList.tail->value, kept);
    EXPECT_EQ(object.linkPropList.tail->prev, object.linkPropList.head);
    kmp_obj_prop* property = object.getObjPropFromList({});
    EXPECT_EQ(object.getObjPropFromList({}), property);
}

} // namespace
