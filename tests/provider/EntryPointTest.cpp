// Every entry point with every kind of bad handle, argument and object, and the lines it leaves.
#include "ProviderFixture.h"

#include <functional>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

kmp_mapdomain_node* const SOME_NODE = reinterpret_cast<kmp_mapdomain_node*>(0x10);
kmp_configid* const SOME_CONFIG = reinterpret_cast<kmp_configid*>(0x10);

bool anyRead(void*, unsigned long, unsigned long, char*) {
    return false;
}
bool anyOptimize(void*, unsigned long, unsigned long, bool) {
    return false;
}
bool anyExtent(void*, unsigned long, unsigned long, unsigned long&, bool&) {
    return false;
}
int anyKeepAlive(void*) {
    return 0;
}

// Good arguments for everything; a case below spoils one at a time.
struct Arguments {
    kmp_extent extent = {};
    kmp_obj_prop* property = nullptr;
    kmp_stats stats = {};
    kmp_io_req request = {};
    kmp_file file = {};
    kmp_fs fs = {};
    kmp_obj* out = nullptr;
    kmp_name* names = nullptr;
    unsigned long position = 0;
    int number = 0;
    int flags = 0;
};

struct EntryPoint {
    const char* name;
    const char* method;
    // Calls with a good or null object and the pointer argument number `nulled` null (-1: none).
    std::function<int(RvpInstance*, kmp_obj*, Arguments&, int nulled)> call;
    int pointers;         // arguments that must not be null, beside the object
    bool takesFile;       // a file is a good object
    bool takesFileSystem; // a file system is a good object
};

template <typename T>
T* unless(bool nulled, T* pointer) {
    return nulled ? nullptr : pointer;
}

const std::vector<EntryPoint>& objectEntryPoints() {
    static const std::vector<EntryPoint> all = {
        {"rvp_map_check_configid", "rvpMapCheckConfigId",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_check_configid(i, o, unless(n == 0, &a.number));
         },
         1, true, false},
        {"rvp_map_get_configid", "rvpMapGetConfigId",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_get_configid(i, o, unless(n == 0, SOME_CONFIG),
                                         unless(n == 1, SOME_CONFIG), unless(n == 2, &a.number));
         },
         3, true, false},
        {"rvp_map_get_extent", "rvpMapGetExtent",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_get_extent(i, o, 0, unless(n == 0, &a.extent), 1,
                                       unless(n == 1, &a.number), unless(n == 2, &a.flags),
                                       unless(n == 3, SOME_NODE));
         },
         4, true, false},
        {"rvp_map_get_names", "rvpMapGetNames",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_get_names(i, o, 0, unless(n == 0, &a.names), unless(n == 1, &a.number));
         },
         2, true, false},
        {"rvp_map_get_obj_prop", "rvpMapGetObjProp",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_get_obj_prop(i, o, unless(n == 0, &a.property));
         },
         1, true, true},
        {"rvp_map_get_obj_stats", "rvpMapGetObjStats",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_get_obj_stats(i, o, unless(n == 0, &a.stats));
         },
         1, true, true},
        {"rvp_map_objctl", "rvpMapObjCtl",
         [](auto* i, auto* o, auto&, int) { return rvp_map_objctl(i, o, 9, nullptr); }, 0, true,
         true},
        {"rvp_map_readdir", "rvpMapReadDir",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_readdir(i, o, unless(n == 0, &a.request), unless(n == 1, &a.position));
         },
         2, true, false},
        {"rvp_map_stat_file", "rvpMapStatFile",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_stat_file(i, o, unless(n == 0, &a.file));
         },
         1, true, false},
        {"rvp_map_stat_fs", "rvpMapStatFs",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_stat_fs(i, o, unless(n == 0, &a.fs));
         },
         1, false, true},
        {"rvp_map_fs_exclude_unallocated", "rvpMapFsExcludeUnallocated",
         [](auto* i, auto* o, auto&, int) { return rvp_map_fs_exclude_unallocated(i, o); }, 0,
         false, true},
        {"rvp_map_open_file_index", "rvpMapOpenFileIndex",
         [](auto* i, auto* o, auto& a, int n) {
             return rvp_map_open_file_index(i, o, 5, unless(n == 0, &a.out), KMP_OPEN_READ,
                                            unless(n == 1, &a.flags), nullptr);
         },
         2, false, true},
        {"rvp_map_close", "rvpMapClose",
         [](auto* i, auto* o, auto&, int) { return rvp_map_close(i, o); }, 0, true, true},
    };
    return all;
}

// The lines of an argument refused with code 3: the check, the error twice, the result twice.
std::vector<std::string> refusal(const EntryPoint& entry, const char* check) {
    const std::string method = std::string(entry.method) + ":RvpFsoCoordinator ";
    return {method + "<ERROR> Exception: " + check,
            "log:Error <WARN> Error: 0x00000003 occured in file plugin/dorado/RvpFsoCoordinator",
            "log:Error <WARN> Error: 0x00000003 occured in file plugin/dorado/RvpFsoCoordinator",
            method + "<WARN> Returning: 3",
            std::string(entry.name) + ":libdorado <WARN> Returning: 3"};
}

std::vector<std::string> withoutSourceLines(std::vector<std::string> lines) {
    for (std::string& line : lines) {
        line = line.substr(0, line.find(", at line "));
    }
    return lines;
}

class EntryPointTest : public ProviderTest {};

TEST_F(EntryPointTest, RefusesNullAndForeignHandles) {
    Arguments a;
    uint64_t foreignInstance[8] = {};
    for (RvpInstance* bad :
         {static_cast<RvpInstance*>(nullptr), reinterpret_cast<RvpInstance*>(foreignInstance)}) {
        for (const EntryPoint& entry : objectEntryPoints()) {
            log.clear();
            EXPECT_EQ(entry.call(bad, nullptr, a, -1), 7) << entry.name;
            const std::string place = std::string(entry.name) + ":libdorado ";
            EXPECT_THAT(log.lines(),
                        ElementsAre(place + "<ERROR> coordinator not allocated successfully",
                                    place + "<WARN> Returning: 7"));
        }
        char* text = nullptr;
        struct km_objid id = {};
        EXPECT_EQ(rvp_map_open_id(bad, &id, nullptr, &a.out, 1, &a.flags, nullptr), 7);
        EXPECT_EQ(rvp_map_set_volume_read_callback(bad, anyRead, nullptr), 7);
        EXPECT_EQ(rvp_map_set_volume_optimize_callback(bad, anyOptimize, nullptr), 7);
        EXPECT_EQ(rvp_map_set_volume_extent_callback(bad, anyExtent, nullptr), 7);
        EXPECT_EQ(rvp_map_set_logical_sector_size(bad, 512), 7);
        EXPECT_EQ(rvp_map_set_keep_alive_callback(bad, anyKeepAlive), 7);
        EXPECT_EQ(rvp_map_errmsg(bad, 3, &text), 7);

        log.clear();
        EXPECT_EQ(rvp_map_claim_id(bad, &id), KM_CLAIM_NONE);
        EXPECT_EQ(rvp_map_claim_volume(bad, "v"), KM_CLAIM_NONE);
        rvp_map_fini(bad);
        EXPECT_THAT(
            log.lines(),
            ElementsAre("rvp_map_claim_id:libdorado <ERROR> coordinator not allocated successfully",
                        "rvp_map_claim_volume:libdorado <ERROR> coordinator not allocated "
                        "successfully",
                        "rvp_map_fini:libdorado <ERROR> coordinator not allocated successfully"));
    }
}

TEST_F(EntryPointTest, RefusesBadArgumentsOfObjectCalls) {
    start();
    claim();
    kmp_obj* volume = openVolume();
    kmp_obj* file = openFile(volume);
    for (const EntryPoint& entry : objectEntryPoints()) {
        kmp_obj* good = entry.takesFile ? file : volume;
        kmp_obj closed = {};
        Arguments a;
        const auto refused = [&](kmp_obj* object, int nulled, const char* check) {
            log.clear();
            listener.heard.clear();
            EXPECT_EQ(entry.call(instance, object, a, nulled), 3) << entry.name;
            EXPECT_EQ(withoutSourceLines(log.lines()), refusal(entry, check)) << entry.name;
            ASSERT_EQ(listener.heard.size(), 1U);
            EXPECT_EQ(listener.heard[0].english, "Invalid argument(s)");
            EXPECT_EQ(listener.heard[0].severity, 2);
        };
        refused(nullptr, -1, "VERIFY_ORMA_BOOL");
        refused(&closed, -1, "VERIFY_ORMA_BOOL");
        for (int pointer = 0; pointer < entry.pointers; ++pointer) {
            refused(good, pointer, "VERIFY_ORMA_BOOL");
        }
        uint64_t foreignObject[64] = {};
        kmp_obj foreign = {};
        foreign.provider = foreignObject;
        refused(&foreign, -1, "VERIFY_ORMA");
        if (!entry.takesFileSystem && std::string(entry.name) != "rvp_map_check_configid") {
            refused(volume, -1, "VERIFY_ORMA");
        }
        if (!entry.takesFile) {
            refused(file, -1, "VERIFY_ORMA");
        }
    }
    EXPECT_EQ(rvp_map_close(instance, file), 0);
    EXPECT_EQ(rvp_map_close(instance, volume), 0);
}

TEST_F(EntryPointTest, RefusesBadArgumentsOfManagerCalls) {
    start();
    kmp_obj* out = nullptr;
    int flags = 0;
    char* text = nullptr;
    struct km_objid* id = km_objid("never", 6, 3);
    const auto open = [&](const struct km_objid* i, kmp_obj** o, int f, int* e) {
        return rvp_map_open_id(instance, i, nullptr, o, f, e, nullptr);
    };
    EXPECT_EQ(open(nullptr, &out, 1, &flags), 3);
    EXPECT_EQ(open(id, nullptr, 1, &flags), 3);
    EXPECT_EQ(open(id, &out, 1, nullptr), 3);
    EXPECT_EQ(open(id, &out, 0, &flags), 3);
    EXPECT_EQ(open(id, &out, 4, &flags), 3);
    for (const int access : {1, 2, 3}) {
        EXPECT_EQ(open(id, &out, access, &flags), 1) << "reaches the manager";
    }
    EXPECT_EQ(rvp_map_set_volume_read_callback(instance, nullptr, nullptr), 3);
    EXPECT_EQ(rvp_map_set_volume_optimize_callback(instance, nullptr, nullptr), 3);
    EXPECT_EQ(rvp_map_set_volume_extent_callback(instance, nullptr, nullptr), 3);
    EXPECT_EQ(rvp_map_set_volume_optimize_callback(instance, anyOptimize, nullptr), 0);
    EXPECT_EQ(rvp_map_set_volume_extent_callback(instance, anyExtent, nullptr), 0);
    EXPECT_EQ(rvp_map_set_keep_alive_callback(instance, nullptr), 3);
    EXPECT_EQ(rvp_map_set_logical_sector_size(instance, 1024), 3);
    EXPECT_EQ(rvp_map_set_logical_sector_size(instance, 4096), 0);
    EXPECT_EQ(rvp_map_errmsg(instance, 3, nullptr), 3);
    EXPECT_EQ(rvp_map_errmsg(instance, 99, &text), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(rvp_map_errmsg(instance, 2058, &text), 0);
    EXPECT_STREQ(text, "File index not allocated");
    char* again = nullptr;
    EXPECT_EQ(rvp_map_errmsg(instance, 2058, &again), 0);
    EXPECT_EQ(text, again);

    log.clear();
    struct km_objid nameless = {};
    EXPECT_EQ(rvp_map_claim_id(instance, &nameless), KM_CLAIM_NONE);
    EXPECT_EQ(rvp_map_claim_volume(instance, nullptr), KM_CLAIM_NONE);
    EXPECT_THAT(withoutSourceLines(log.lines()),
                ElementsAre("rvpMapClaimId:RvpFsoCoordinator <ERROR> Exception: VERIFY_ORMA_BOOL",
                            testing::StartsWith("log:Error <WARN> Error: 0x00000003"),
                            testing::StartsWith("log:Error <WARN> Error: 0x00000003"),
                            "rvpMapClaimVolume:RvpFsoCoordinator <ERROR> Exception: "
                            "VERIFY_ORMA_BOOL",
                            testing::StartsWith("log:Error"), testing::StartsWith("log:Error")));
    km_free_objid(id);
}

TEST_F(EntryPointTest, CheckConfigIdAnswersAFileSystemWithoutRaising) {
    start();
    claim();
    kmp_obj* volume = openVolume();
    int result = 77;
    listener.heard.clear();
    log.clear();
    EXPECT_EQ(rvp_map_check_configid(instance, volume, &result), 3);
    EXPECT_EQ(result, 77);
    EXPECT_THAT(listener.heard, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("rvpMapCheckConfigId:RvpFsoCoordinator <WARN> Returning: 3",
                            "rvp_map_check_configid:libdorado <WARN> Returning: 3"));
    rvp_map_close(instance, volume);
}

TEST_F(EntryPointTest, CloseClearsTheRecordAndUnsupportedIsLoggedAsSuch) {
    start();
    claim();
    kmp_obj* volume = openVolume();
    kmp_obj* file = openFile(volume);
    kmp_name* names = nullptr;
    int count = 0;
    log.clear();
    EXPECT_EQ(rvp_map_get_names(instance, file, 0, &names, &count), 4);
    EXPECT_THAT(log.lines(),
                ElementsAre("rvpMapGetNames:RvpFsoCoordinator <TRACE> Object: unnamed dorado file",
                            "getNames:RvpFsoFile <DEBUG> Returning: KMP_ENOTSUP",
                            "rvpMapGetNames:RvpFsoCoordinator <DEBUG> Returning: KMP_ENOTSUP",
                            "rvp_map_get_names:libdorado <DEBUG> Returning: KMP_ENOTSUP"));
    EXPECT_EQ(rvp_map_close(instance, file), 0);
    EXPECT_EQ(script->calls.back(), "closeFile");
    EXPECT_EQ(rvp_map_close(instance, volume), 0);
}

TEST_F(EntryPointTest, StatFsNamesTheVolumeTwice) {
    start();
    claim();
    kmp_obj* volume = openVolume();
    kmp_fs fs;
    log.clear();
    EXPECT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_THAT(lines[0], testing::StartsWith("rvpMapStatFs:RvpFsoCoordinator <TRACE> FS Name:"));
    EXPECT_EQ(lines[1], "rvpMapStatFs:RvpFsoCoordinator <TRACE> Object: VOL1");
    rvp_map_close(instance, volume);
}

TEST_F(EntryPointTest, TwoInstancesShareTheHandlerAndTheLibrary) {
    start();
    claim("A");
    RvpInstance* second = nullptr;
    ErrorListener later;
    int version = 0;
    ASSERT_EQ(rvp_map_init(&second, &later, &version), 0);
    EXPECT_EQ(rvp_map_claim_volume(second, "B"), KM_CLAIM_SECONDARY);
    EXPECT_EQ(std::count(script->calls.begin(), script->calls.end(), "libInit"), 1);
    EXPECT_EQ(rvp_map_stat_fs(instance, nullptr, nullptr), 3);
    EXPECT_EQ(later.heard.size(), 1U) << "the last handler given counts";
    rvp_map_fini(second);
    EXPECT_EQ(std::count(script->calls.begin(), script->calls.end(), "libFini"), 0);
    EXPECT_EQ(rvp_map_stat_fs(instance, nullptr, nullptr), 3);
    EXPECT_THAT(listener.heard, IsEmpty()) << "the end of one instance took the handler away";
}

} // namespace
