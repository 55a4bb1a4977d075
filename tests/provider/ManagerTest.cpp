// Claiming and opening volumes, and the library's life.
#include "ProviderFixture.h"

#include "Error.h"
#include "RvpFsoCoordinator.h"
#include "RvpFsoFileSystem.h"
#include "RvpFsoFileSystemMgr.h"

namespace {

using testing::ElementsAre;

class ManagerTest : public ProviderTest {
  protected:
    using ProviderTest::ProviderTest;
};

TEST_F(ManagerTest, LoadsInitialisesAndClaims) {
    start();
    int context = 0;
    rvp_map_set_volume_read_callback(instance, readNothing, &context);
    rvp_map_set_logical_sector_size(instance, 4096);
    log.clear();
    EXPECT_EQ(rvp_map_claim_volume(instance, "vol"), KM_CLAIM_SECONDARY);
    const std::string directory = std::string(km_root) + "/lib/map/rvp/";
    EXPECT_THAT(log.lines(),
                ElementsAre("claim:RvpFsoFileSystemMgr <INFO> FSO Path: " + directory + "libfso.so",
                            "claim:RvpFsoFileSystemMgr <INFO> FSO libInit info: name: scripted, "
                            "version: 1.0, build: b1",
                            "claim:RvpFsoFileSystemMgr <INFO> FSO libInit info: name: "
                            "scripted-two, version: 2.0, build: b2",
                            "plugin_report_claim:LogHelper.h <INFO> Return KM_CLAIM_SECONDARY for: "
                            "vol"));
    EXPECT_THAT(script->calls, ElementsAre("libInit", "openFileSystemObject", "recognise"));
    EXPECT_EQ(script->directory, directory);
    EXPECT_EQ(script->sectorSize, 4096U);
    EXPECT_EQ(script->read, &readNothing);
    EXPECT_EQ(script->readContext, &context);

    script->calls.clear();
    rvp_map_fini(instance);
    instance = nullptr;
    EXPECT_THAT(script->calls, ElementsAre("closeFileSystemObject", "libFini"));

    // The process remembers that the library was initialised, though the manager is gone.
    script->calls.clear();
    start();
    claim();
    EXPECT_THAT(script->calls, ElementsAre("openFileSystemObject", "recognise"));
    rvp_map_fini(instance);
    instance = nullptr;
    EXPECT_EQ(script->calls.back(), "closeFileSystemObject");
}

TEST_F(ManagerTest, UnclaimedVolumesAreNeitherKeptNorClosed) {
    start();
    script->recognises = false;
    log.clear();
    EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);
    EXPECT_EQ(log.lines().back(),
              "plugin_report_claim:LogHelper.h <INFO> Return KM_CLAIM_NONE for: v");
    script->recognises = true;
    script->openStatus = FSO_IO;
    EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);

    struct km_objid* id = km_objid("v", 2, 3);
    log.clear();
    EXPECT_EQ(rvp_map_claim_id(instance, id), KM_CLAIM_NONE);
    EXPECT_THAT(log.lines(), ElementsAre("rvpMapClaimId:RvpFsoCoordinator <TRACE> Object Name:v",
                                         "claimId:RvpFsoFileSystemMgr <INFO> KM_CLAIM_NONE"));
    kmp_obj* object = reinterpret_cast<kmp_obj*>(0x10);
    int flags = 5;
    EXPECT_EQ(rvp_map_open_id(instance, id, nullptr, &object, 1, &flags, nullptr), 1);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(flags, 5);
    km_free_objid(id);

    script->calls.clear();
    rvp_map_fini(instance);
    instance = nullptr;
    EXPECT_THAT(script->calls, ElementsAre("libFini"));
}

TEST_F(ManagerTest, IdsMatchInAnyCaseAndTheFirstClaimWins) {
    start();
    claim("Volume");
    claim("VOLUME");
    struct km_objid* id = km_objid("volume", 7, 3);
    EXPECT_EQ(rvp_map_claim_id(instance, id), KM_CLAIM_PRIMARY);
    kmp_obj* volume = openVolume("volume");
    ASSERT_NE(volume, nullptr);
    EXPECT_STREQ(volume->name, "Volume");
    EXPECT_EQ(volume->name, volume->displayName);
    EXPECT_EQ(volume->id->kind, 3);
    rvp_map_close(instance, volume);
    km_free_objid(id);
    script->closeObjectStatus = FSO_IO;
    log.clear();
    rvp_map_fini(instance);
    instance = nullptr;
    EXPECT_THAT(log.lines(), ElementsAre("~RvpFsoFileSystemMgr:RvpFsoFileSystemMgr <INFO> Failed "
                                         "to close FSO object",
                                         "~RvpFsoFileSystemMgr:RvpFsoFileSystemMgr <INFO> Failed "
                                         "to close FSO object"));
}

TEST_F(ManagerTest, RefusesAFileSystemThatCannotBeRead) {
    start();
    claim();
    struct km_objid* id = km_objid("VOL1", 5, 3);
    kmp_obj* object = reinterpret_cast<kmp_obj*>(0x10);
    int flags = 0;
    const auto expectRefused = [&] {
        log.clear();
        EXPECT_EQ(rvp_map_open_id(instance, id, nullptr, &object, 1, &flags, nullptr), 3);
        EXPECT_EQ(object, nullptr);
        EXPECT_THAT(log.lines(),
                    ElementsAre("openId:RvpFsoFileSystemMgr <TRACE> Object Name: VOL1",
                                "claimId:RvpFsoFileSystemMgr <INFO> KM_CLAIM_PRIMARY",
                                "RvpFsoFileSystem:RvpFsoFileSystem <INFO> Volume name: VOL1",
                                "init:RvpFsoFileSystem <ERROR> Failed to stat filesystem",
                                "openId:RvpFsoFileSystemMgr <WARN> Invalid FSO object",
                                "openId:RvpFsoFileSystemMgr <WARN> Returning: 3",
                                "rvpMapOpenId:RvpFsoCoordinator <WARN> Returning: 3",
                                "rvp_map_open_id:libdorado <WARN> Returning: 3"));
    };
    script->fs.fileCount = 0;
    expectRefused();
    script->fs.fileCount = 1;
    script->statFsStatus = FSO_IO;
    expectRefused();
    km_free_objid(id);
}

TEST_F(ManagerTest, ALibraryLineIsAFormatAtItsOwnLevel) {
    start();
    claim();
    log.clear();
    EXPECT_EQ(script->log(FS_LOG_WARNING, "100%% read\n"), 1);
    EXPECT_EQ(script->log(static_cast<fs_log_level_t>(1), "odd level\n"), 1);
    EXPECT_THAT(log.lines(),
                ElementsAre("FSOLogCallback:RvpFsoFileSystemMgr <WARN> 100% read",
                            "FSOLogCallback:RvpFsoFileSystemMgr <Unknown Error> odd level"));
}

TEST_F(ManagerTest, AMissingLibraryRaisesAndTheClaimIsRefused) {
    start();
    km_root = "/nonexistent";
    EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);
    ASSERT_EQ(listener.heard.size(), 1U);
    EXPECT_EQ(listener.heard[0].english, "Invalid argument(s)");
}

TEST_F(ManagerTest, AFailedInitialisationIsTriedAgain) {
    start();
    script->initFails = true;
    EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);
    EXPECT_EQ(listener.heard.size(), 1U);
    script->initFails = false;
    EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_SECONDARY);
}

// Libraries that lack a symbol.
struct WithoutInit : ManagerTest {
    WithoutInit() : ManagerTest("without_init") {}
};
struct WithoutOpen : ManagerTest {
    WithoutOpen() : ManagerTest("without_open") {}
};
struct WithoutClose : ManagerTest {
    WithoutClose() : ManagerTest("without_close") {}
};
struct WithoutFini : ManagerTest {
    WithoutFini() : ManagerTest("without_fini") {}
};

TEST_F(WithoutInit, IsAnError) {
    start();
    EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);
    EXPECT_EQ(listener.heard.size(), 1U);
}

TEST_F(WithoutOpen, IsAnError) {
    start();
    EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);
    EXPECT_EQ(listener.heard.size(), 1U);
}

TEST_F(WithoutClose, LeavesTheObjectsSilently) {
    start();
    claim();
    log.clear();
    rvp_map_fini(instance);
    instance = nullptr;
    EXPECT_EQ(script->calls.back(), "libFini");
    EXPECT_THAT(log.lines(), testing::IsEmpty());
}

TEST_F(WithoutFini, LogsThatTheLibraryWasNotEnded) {
    start();
    claim();
    log.clear();
    rvp_map_fini(instance);
    instance = nullptr;
    EXPECT_THAT(log.lines(), ElementsAre("~RvpFsoFileSystemMgr:RvpFsoFileSystemMgr <WARN> Failed "
                                         "to terminate FSO library"));
}

TEST_F(ManagerTest, AnUninitialisedCoordinatorRefusesWithCode2) {
    RvpFsoCoordinator coordinator(new RvpFsoFileSystemMgr);
    kmp_fs fs;
    EXPECT_EQ(coordinator.rvpMapStatFs(nullptr, &fs), 2);
    EXPECT_EQ(coordinator.rvpMapClaimVolume("v"), KM_CLAIM_NONE);
    int version = 0;
    EXPECT_EQ(coordinator.rvpMapInit(&listener, &version), 0);
    version = 0;
    EXPECT_EQ(coordinator.rvpMapInit(nullptr, &version), 0);
    EXPECT_EQ(version, 0) << "a second initialisation changes nothing";
    EXPECT_EQ(Error::s_pHandler, &listener);
    coordinator.rvpMapFini();
    EXPECT_EQ(coordinator.rvpMapStatFs(nullptr, &fs), 2);
    EXPECT_TRUE(listener.heard.empty());
    EXPECT_THROW(RvpFsoCoordinator(nullptr), OrmaError);
}

TEST_F(ManagerTest, TheLibraryPathIsBoundedByTheInstallPath) {
    RvpFsoFileSystemMgr mgr;
    const std::string deep(300, 'd');
    km_root = deep.c_str();
    std::string path = "untouched";
    mgr.resolveFsoPath(path, "libfso");
    EXPECT_EQ(path, std::string(260, 'd') + "map/rvp/libfso.so");
    EXPECT_EQ(mgr.excludeUnallocated(nullptr), 0);
    EXPECT_EQ(mgr.setLogicalSectorSize(0), 0);
}

} // namespace
