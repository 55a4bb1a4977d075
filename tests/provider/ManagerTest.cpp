// Claiming and opening volumes, and the library's life.
#include "ProviderFixture.h"

#include "Error.h"
#include "RvpFsoCoordinator.h"
#include "RvpFsoFileSystem.h"
#include "RvpFsoFileSystemMgr.h"
#include "support/Raised.h"

namespace {

int keepAlive(void*) {
    return 0;
}

class ManagerTest : public ProviderTest {
  protected:
    using ProviderTest::ProviderTest;
};

TEST_F(ManagerTest, LoadsInitialisesAndClaims) {
    int context = 0;
    rvp_map_set_volume_read_callback(instance, readNothing, &context);
    rvp_map_set_logical_sector_size(instance, 4096);
    EXPECT_EQ(rvp_map_set_keep_alive_callback(instance, keepAlive), 0);
    log.clear();
    claim("vol");
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
    EXPECT_EQ(script->keepAlive, &keepAlive);

    script->calls.clear();
    end();
    EXPECT_THAT(script->calls, ElementsAre("closeFileSystemObject", "libFini"));
}

TEST_F(ManagerTest, TheLibraryIsInitialisedOnceInAProcess) {
    script->initFails = true;
    EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);
    EXPECT_EQ(listener.heard.size(), 1U);
    script->initFails = false;
    claim();
    EXPECT_THAT(script->calls,
                ElementsAre("libInit", "libInit", "openFileSystemObject", "recognise"));
    end();
    script->calls.clear();
    int version = 0;
    ASSERT_EQ(rvp_map_init(&instance, &listener, &version), 0);
    claim();
    end();
    EXPECT_THAT(script->calls,
                ElementsAre("openFileSystemObject", "recognise", "closeFileSystemObject"));
}

TEST_F(ManagerTest, UnclaimedVolumesAreNeitherKeptNorClosed) {
    script->recognises = false;
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
    end();
    EXPECT_THAT(script->calls, ElementsAre("libFini"));
}

TEST_F(ManagerTest, IdsMatchInAnyCaseAndTheFirstClaimWins) {
    claim("Volume");
    claim("VOLUME");
    struct km_objid* id = km_objid("volume", 7, 3);
    EXPECT_EQ(rvp_map_claim_id(instance, id), KM_CLAIM_PRIMARY);
    km_free_objid(id);
    kmp_obj* volume = openVolume("volume");
    EXPECT_STREQ(volume->name, "Volume");
    EXPECT_EQ(volume->name, volume->displayName);
    EXPECT_EQ(volume->id->kind, 3);
    close(volume);

    script->closeObjectStatus = FSO_IO;
    log.clear();
    end();
    const std::string line =
        "~RvpFsoFileSystemMgr:RvpFsoFileSystemMgr <INFO> Failed to close FSO object";
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST_F(ManagerTest, RefusesAFileSystemThatCannotBeRead) {
    claim();
    struct km_objid* id = km_objid("VOL1", 5, 3);
    for (const bool lacksFiles : {false, true}) {
        script->statFsStatus = lacksFiles ? FSO_OK : FSO_IO;
        script->fs.fileCount = lacksFiles ? 0 : 1;
        kmp_obj* object = reinterpret_cast<kmp_obj*>(0x10);
        int flags = 0;
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
    }
    km_free_objid(id);
}

TEST_F(ManagerTest, ALibraryLineIsAFormatAtItsOwnLevel) {
    claim();
    log.clear();
    EXPECT_EQ(script->log(FS_LOG_WARNING, "100%% read\n"), 1);
    EXPECT_EQ(script->log(static_cast<fs_log_level_t>(1), "odd level\n"), 1);
    EXPECT_THAT(log.lines(),
                ElementsAre("FSOLogCallback:RvpFsoFileSystemMgr <WARN> 100% read",
                            "FSOLogCallback:RvpFsoFileSystemMgr <Unknown Error> odd level"));
}

// Libraries that lack a symbol, or are not there.
class LackingTest : public ManagerTest, public testing::WithParamInterface<const char*> {
  protected:
    LackingTest() : ManagerTest(GetParam()) {}
};
class UselessLibrary : public LackingTest {};
INSTANTIATE_TEST_SUITE_P(Roots, UselessLibrary, testing::Values("without_init", "without_open"));
class CarelessLibrary : public LackingTest {};
INSTANTIATE_TEST_SUITE_P(Roots, CarelessLibrary, testing::Values("without_close", "without_fini"));

TEST_P(UselessLibrary, RaisesAndTheClaimIsRefused) {
    for (const char* root : {km_root, "/nonexistent"}) {
        km_root = root;
        listener.heard.clear();
        EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);
        EXPECT_THAT(listener.heard,
                    ElementsAre(ErrorListener::Heard{"Invalid argument(s)", true, 2}));
    }
}

TEST_P(CarelessLibrary, IsLeftAsItIs) {
    claim();
    log.clear();
    end();
    if (GetParam() == std::string("without_close")) {
        EXPECT_EQ(script->calls.back(), "libFini");
        EXPECT_THAT(log.lines(), IsEmpty());
    } else {
        EXPECT_EQ(script->calls.back(), "closeFileSystemObject");
        EXPECT_THAT(log.lines(), ElementsAre("~RvpFsoFileSystemMgr:RvpFsoFileSystemMgr <WARN> "
                                             "Failed to terminate FSO library"));
    }
}

TEST_F(ManagerTest, AnUninitialisedCoordinatorRefusesWithCode2) {
    RvpFsoCoordinator coordinator(new RvpFsoFileSystemMgr);
    struct km_objid* id = km_objid("v", 2, 3);
    kmp_fs fs;
    EXPECT_EQ(coordinator.rvpMapStatFs(nullptr, &fs), 2);
    EXPECT_EQ(coordinator.rvpMapClaimVolume("v"), KM_CLAIM_NONE);
    log.clear();
    EXPECT_EQ(coordinator.rvpMapClaimId(id), KM_CLAIM_NONE);
    EXPECT_EQ(log.lines().back(),
              "rvpMapClaimId:RvpFsoCoordinator <INFO> Reject Claim for Object Name:v ");
    km_free_objid(id);
    listener.heard.clear();
    int version = 0;
    EXPECT_EQ(coordinator.rvpMapInit(&listener, &version), 0);
    version = 0;
    EXPECT_EQ(coordinator.rvpMapInit(nullptr, &version), 0);
    EXPECT_EQ(version, 0) << "a second initialisation changes nothing";
    EXPECT_EQ(Error::s_pHandler, &listener);
    coordinator.rvpMapFini();
    EXPECT_EQ(coordinator.rvpMapStatFs(nullptr, &fs), 2);
    EXPECT_THAT(listener.heard, IsEmpty());
    EXPECT_EQ(raisedBy([] { RvpFsoCoordinator(nullptr); }),
              "3 plugin/dorado/RvpFsoCoordinator RvpFsoCoordinator");
}

TEST_F(ManagerTest, TheLibraryPathIsBoundedByTheInstallPath) {
    RvpFsoFileSystemMgr mgr;
    const std::string deep(300, 'd');
    km_root = deep.c_str();
    std::string path;
    mgr.resolveFsoPath(path, "libfso");
    EXPECT_EQ(path, std::string(260, 'd') + "map/rvp/libfso.so");
    EXPECT_EQ(mgr.setLogicalSectorSize(0), 0);
}

} // namespace
