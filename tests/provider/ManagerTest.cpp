// Claiming and opening volumes, and the library's life.
#include "ProviderFixture.h"

#include "Error.h"
#include "RvpFsoCoordinator.h"
#include "support/Raised.h"

#include <algorithm>

namespace {

class ManagerTest : public ProviderTest {
  protected:
    void expectNotOpened(int code) {
        kmp_obj* object = reinterpret_cast<kmp_obj*>(0x10);
        EXPECT_EQ(rvp_map_open_id(instance, &id, nullptr, &object, 1, &flags, nullptr), code);
        EXPECT_EQ(object, nullptr);
    }

    const struct km_objid id = idOf("vol1");
};

TEST_F(ManagerTest, LoadsInitialisesAndClaims) {
    const auto read = [](void*, unsigned long, unsigned long, char*) { return false; };
    const auto optimize = [](void*, unsigned long, unsigned long, bool) { return false; };
    const auto extent = [](void*, unsigned long, unsigned long, unsigned long&, bool&) {
        return false;
    };
    const auto keepAlive = [](void*) { return 0; };
    EXPECT_EQ(rvp_map_set_volume_read_callback(instance, read, this), 0);
    EXPECT_EQ(rvp_map_set_volume_optimize_callback(instance, optimize, nullptr), 0);
    EXPECT_EQ(rvp_map_set_volume_extent_callback(instance, extent, nullptr), 0);
    EXPECT_EQ(rvp_map_set_keep_alive_callback(instance, keepAlive), 0);
    EXPECT_EQ(rvp_map_set_logical_sector_size(instance, 4096), 0);
    log.clear();
    claim("vol");
    EXPECT_EQ(script.log(FS_LOG_WARNING, "100%% read\n"), 1);
    EXPECT_EQ(script.log(static_cast<fs_log_level_t>(1), "odd level\n"), 1);
    const std::string line = "claim:RvpFsoFileSystemMgr <INFO> FSO ";
    EXPECT_THAT(
        log.lines(),
        ElementsAre(line + "Path: /root/lib/map/rvp/libfso.so",
                    line + "libInit info: name: scripted, version: 1.0, build: b1",
                    line + "libInit info: name: scripted-two, version: 2.0, build: b2",
                    "plugin_report_claim:LogHelper.h <INFO> Return KM_CLAIM_SECONDARY for: vol",
                    "FSOLogCallback:RvpFsoFileSystemMgr <WARN> 100% read",
                    "FSOLogCallback:RvpFsoFileSystemMgr <Unknown Error> odd level"));
    EXPECT_EQ(script.directory, "/root/lib/map/rvp/");
    EXPECT_EQ(script.sectorSize, 4096U);
    EXPECT_EQ(script.read, read);
    EXPECT_EQ(script.readContext, this);
    EXPECT_EQ(script.keepAlive, keepAlive);
    end();
    EXPECT_THAT(script.calls, ElementsAre("libInit", "openFileSystemObject", "recognise",
                                          "closeFileSystemObject", "libFini"));
}

TEST_F(ManagerTest, NeedsTheLibraryAndInitialisesItOnceInAProcess) {
    for (const char* lack : {"libfso.so", "libInit", "a good libInit", "openFileSystemObject"}) {
        script.lacks = {lack};
        script.status["libInit"] = script.lacks.contains("a good libInit") ? FSO_IO : FSO_OK;
        listener.heard.clear();
        EXPECT_EQ(rvp_map_claim_volume(instance, "v"), KM_CLAIM_NONE);
        EXPECT_THAT(listener.heard, ElementsAre(Heard{"Invalid argument(s)", true, 2})) << lack;
    }
    script.lacks = {"closeFileSystemObject", "libFini"};
    claim("v");
    log.clear();
    end();
    EXPECT_THAT(log.lines(), ElementsAre("~RvpFsoFileSystemMgr:RvpFsoFileSystemMgr <WARN> Failed "
                                         "to terminate FSO library"));
    script.lacks.clear();
    begin();
    claim("v");
    end();
    EXPECT_THAT(script.calls,
                ElementsAre("libInit", "libInit", "openFileSystemObject", "recognise",
                            "openFileSystemObject", "recognise", "closeFileSystemObject"));
}

TEST_F(ManagerTest, OpensOnlyWhatWasClaimedAndCanBeRead) {
    for (const char* failing : {"recognise", "openFileSystemObject"}) {
        script.status = {{failing, FSO_IO}};
        EXPECT_EQ(rvp_map_claim_volume(instance, "VOL1"), KM_CLAIM_NONE);
        EXPECT_EQ(log.lines().back(),
                  "plugin_report_claim:LogHelper.h <INFO> Return KM_CLAIM_NONE for: VOL1");
    }
    EXPECT_EQ(rvp_map_claim_id(instance, &id), KM_CLAIM_NONE);
    EXPECT_EQ(log.lines().back(), "claimId:RvpFsoFileSystemMgr <INFO> KM_CLAIM_NONE");
    expectNotOpened(1);
    script.status = {{"statFs", FSO_IO}};
    claim("VOL1");
    expectNotOpened(3);
    script.status.clear();
    script.fs.fileCount = 0;
    expectNotOpened(3);
    EXPECT_THAT(log.lines(), Contains("init:RvpFsoFileSystem <ERROR> Failed to stat filesystem"));
    EXPECT_THAT(log.lines(), Contains("openId:RvpFsoFileSystemMgr <WARN> Invalid FSO object"));
    end();
    EXPECT_EQ(std::ranges::count(script.calls, "closeFileSystemObject"), 1)
        << "what was not claimed is not closed";
}

TEST_F(ManagerTest, IdsMatchInAnyCaseAndTheFirstClaimWins) {
    claim("Vol1");
    claim("VOL1");
    EXPECT_EQ(rvp_map_claim_id(instance, &id), KM_CLAIM_PRIMARY);
    EXPECT_EQ(log.lines().back(), "claimId:RvpFsoFileSystemMgr <INFO> KM_CLAIM_PRIMARY");
    kmp_obj* volume = openVolume();
    EXPECT_STREQ(volume->name, "Vol1");
    EXPECT_STREQ(volume->displayName, "Vol1");
    close(volume);
    script.status["closeFileSystemObject"] = FSO_IO;
    log.clear();
    end();
    const std::string line =
        "~RvpFsoFileSystemMgr:RvpFsoFileSystemMgr <INFO> Failed to close FSO object";
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST_F(ManagerTest, TheLibraryPathIsBoundedByTheInstallPath) {
    RvpFsoFileSystemMgr manager;
    const std::string deep(300, 'd');
    km_root = deep.c_str();
    std::string path;
    manager.resolveFsoPath(path, "libfso");
    EXPECT_EQ(path, std::string(260, 'd') + "map/rvp/libfso.so");
}

TEST_F(ManagerTest, AnUninitialisedCoordinatorRefusesWithCode2) {
    RvpFsoCoordinator coordinator(new RvpFsoFileSystemMgr);
    EXPECT_EQ(coordinator.rvpMapClaimVolume("v"), KM_CLAIM_NONE);
    EXPECT_EQ(coordinator.rvpMapClaimId(&id), KM_CLAIM_NONE);
    EXPECT_EQ(log.lines().back(),
              "rvpMapClaimId:RvpFsoCoordinator <INFO> Reject Claim for Object Name:vol1 ");
    EXPECT_EQ(coordinator.rvpMapClose(nullptr), 2);
    EXPECT_EQ(coordinator.rvpMapInit(&listener, &flags), 0);
    EXPECT_EQ(coordinator.rvpMapInit(nullptr, &flags), 0);
    EXPECT_EQ(Error::s_pHandler, &listener) << "a second initialisation changes nothing";
    coordinator.rvpMapFini();
    EXPECT_EQ(coordinator.rvpMapClose(nullptr), 2);
    EXPECT_EQ(raisedBy([] { RvpFsoCoordinator(nullptr); }),
              "3 plugin/dorado/RvpFsoCoordinator RvpFsoCoordinator");
}

} // namespace
