// The file system object: what it answers from the library's record.
#include "ProviderFixture.h"

#include "RvpFsoFileSystem.h"
#include "support/Layout.h"
#include "support/Raised.h"

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
};

TEST_F(FileSystemTest, CopiesTheLibrarysRecord) {
    script.fs = {FSO_FS_EXT4, FSO_FS_HAS_ERRORS, 4096,    16,  24, 32, 40, 48,
                 100,         {'u', 'u'},        "label", 255, 9};
    volume = openVolume();
    std::memset(&fs, 0xAA, sizeof fs);
    ASSERT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    EXPECT_THAT((std::vector{fs.type, fs.state, fs.preferredBlockSize, fs.blockSize, fs.usedBlocks,
                             fs.blockCount, fs.freeBlocks, fs.freeFiles, fs.fileCount, fs.volumeId,
                             uint64_t{fs.maxNameLength}, uint64_t{fs.reserved0[0]}}),
                ElementsAre(4, 2, 32768, 4096, 16, 24, 32, 40, 128, 0x7575, 255, 0));
    EXPECT_STREQ(fs.nameSpace, "dorado");
    ASSERT_EQ(rvp_map_get_obj_prop(instance, volume, &property), 0);
    EXPECT_THAT((std::vector<uint64_t>{property->kind, property->blockSize, property->size,
                                       property->value104, property->value112}),
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

TEST_F(FileSystemTest, AnswersControlCommands) {
    uint64_t root = 0;
    EXPECT_EQ(control(KMP_OCROOTINDEX, &root), 0);
    EXPECT_EQ(root, 2U);
    script.status["rootIndex"] = FSO_IO;
    EXPECT_EQ(control(KMP_OCROOTINDEX, &root), 0);
    EXPECT_EQ(root, 0U) << "the status is not looked at";
    for (const int command : {KMP_OCTRAVERSETYPE, KMP_OCTRAVERSEATTRIBUTE}) {
        one = 0;
        EXPECT_EQ(control(command, &one), 0);
        EXPECT_EQ(one, 1U);
    }
    for (int command = KMP_OCVOLUMENAME; command <= KMP_OCTRAVERSEATTRIBUTE; ++command) {
        EXPECT_EQ(control(command, nullptr), 3) << command;
    }
    log.clear();
    EXPECT_EQ(control(KMP_OCGETEXTFS, nullptr), 4);
    EXPECT_EQ(control(KMP_OCSETEXTFS, nullptr), 4);
    EXPECT_EQ(control(77, nullptr), 3);
    EXPECT_THAT(log.lines(), Contains("rvpMapObjCtl:RvpFsoCoordinator <TRACE> Object: VOL1 cmd:2"));
    EXPECT_THAT(log.lines(),
                Contains("objCtl:RvpFsoFileSystem <ERROR> Unsupported option. cmd = 77 "));
}

TEST_F(FileSystemTest, WithoutReadAccessOnlyTheStatisticsAnswer) {
    volume = openVolume(KMP_OPEN_WRITE);
    kmp_obj* file = volume;
    EXPECT_EQ(rvp_map_stat_fs(instance, volume, &fs), 4);
    EXPECT_EQ(rvp_map_get_obj_prop(instance, volume, &property), 4);
    EXPECT_EQ(control(KMP_OCTRAVERSETYPE, &one), 4);
    EXPECT_EQ(rvp_map_open_file_index(instance, volume, 5, &file, 1, &flags, nullptr), 4);
    EXPECT_EQ(file, volume) << "untouched before a file is made";
    std::memset(&stats, 0xAA, sizeof stats);
    EXPECT_EQ(rvp_map_get_obj_stats(instance, volume, &stats), 0);
    EXPECT_EQ(stats.values[179], 0U);
    EXPECT_EQ(rvp_map_fs_exclude_unallocated(instance, volume), 0);
}

TEST_F(FileSystemTest, AFileThatDoesNotOpenIsClosedInTheLibrary) {
    kmp_obj* file = volume;
    script.status["openFile"] = FSO_UNSUPPORTED;
    script.calls.clear();
    EXPECT_EQ(rvp_map_open_file_index(instance, volume, 7, &file, 1, &flags, nullptr), 11);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(script.index, 7U);
    EXPECT_THAT(script.calls, ElementsAre("openFile", "closeFile"));
    EXPECT_THAT(log.lines(),
                ElementsAre("rvpMapOpenFileIndex:RvpFsoCoordinator <TRACE> XFS Object Name: VOL1",
                            "openFileIndex:RvpFsoFileSystem <WARN> Returning: 11",
                            "rvpMapOpenFileIndex:RvpFsoCoordinator <WARN> Returning: 11",
                            "rvp_map_open_file_index:libdorado <WARN> Returning: 11"));
}

TEST_F(FileSystemTest, TheRecordIsReadOnceAndMissedWhereItWasNot) {
    auto& initialised = *static_cast<RvpFsoFileSystem*>(volume->provider);
    script.calls.clear();
    EXPECT_EQ(initialised.init(4096, initialised.fso), 0);
    EXPECT_EQ(initialised.sectorSize, 4096U);
    EXPECT_THAT(script.calls, IsEmpty());

    RvpFsoFileSystem empty("");
    EXPECT_EQ(empty.volumeId, nullptr);
    EXPECT_EQ(raisedBy([&] { empty.init(512, nullptr); }), "3 plugin/dorado/RvpFsoFileSystem init");
    ASSERT_EQ(empty.openFileSystem(&volume, KMP_OPEN_READ, &flags), 0);
    EXPECT_EQ(empty.objCtl(KMP_OCVOLUMENAME, nullptr), 11);
    EXPECT_EQ(empty.objCtl(KMP_OCVOLUMEUUID, nullptr), 11);
    EXPECT_EQ(empty.objCtl(KMP_OCTRAVERSEATTRIBUTE, &one), 0);
    EXPECT_EQ(empty.statFs(&fs), 0);
    EXPECT_EQ(fs.preferredBlockSize, 0U);
    EXPECT_THAT(offsetsIn(&empty, empty.signature, empty.objectType, empty.obj, empty.propList,
                          empty.linkPropList, empty.volumeId, empty.volumeName, empty.openFlags,
                          empty.fsRecord, empty.initialised, empty.fso, empty.sectorSize),
                ElementsAre(8, 12, 16, 168, 200, 232, 240, 272, 280, 400, 408, 416));
}

TEST(PlainObject, SupportsNothingButLists) {
    RvpFsoObject object(1, "o");
    EXPECT_THAT((std::vector{object.checkConfigId({}), object.getConfigId({}, {}, {}),
                             object.getExtent({}, {}, {}, {}, {}, {}), object.getObjProp({}),
                             object.getObjStats({}), object.getSubObjLinkProp({}, {}),
                             object.objCtl({}, {}), object.read({}, {}), object.readDir({}, {}),
                             object.statFile({}), object.statFs({}), object.write({}, {})}),
                testing::Each(KMP_ENOTSUP));
    EXPECT_EQ(raisedBy([] { RvpFsoObject(1, nullptr); }),
              "3 plugin/dorado/RvpFsoObject RvpFsoObject");

    // One copy of equal records, the newest in front.
    kmp_obj_link_prop other = {};
    other.reserved0[15] = 1;
    kmp_obj_link_prop* first = object.getLinkPropFromList({});
    kmp_obj_link_prop* second = object.getLinkPropFromList(other);
    EXPECT_EQ(object.getLinkPropFromList({}), first);
    EXPECT_EQ(object.linkPropList.count, 2U);
    EXPECT_EQ(&object.linkPropList.head->value, second);
    EXPECT_EQ(&object.linkPropList.tail->value, first);
    EXPECT_EQ(object.linkPropList.tail->prev, object.linkPropList.head);
    EXPECT_EQ(object.getObjPropFromList({}), object.getObjPropFromList({}));
}

} // namespace
