// Every entry point with every kind of bad handle, argument and object, and the lines it leaves.
#include "ProviderFixture.h"

#include "Error.h"
#include "RvpFsoObject.h"

#include <algorithm>
#include <functional>
#include <tuple>
#include <type_traits>

namespace {

using testing::StartsWith;
using Lines = std::vector<std::string>;

kmp_mapdomain_node* const SOME_NODE = reinterpret_cast<kmp_mapdomain_node*>(0x10);
kmp_configid* const SOME_CONFIG = reinterpret_cast<kmp_configid*>(0x10);
constexpr int NO_POINTER = -1;
constexpr unsigned FILES = FSO_FILE_OBJECT;
constexpr unsigned FILE_SYSTEMS = FSO_FILE_SYSTEM_OBJECT;

bool anyOptimize(void*, unsigned long, unsigned long, bool) {
    return false;
}
bool anyExtent(void*, unsigned long, unsigned long, unsigned long&, bool&) {
    return false;
}
int anyKeepAlive(void*) {
    return 0;
}

struct EntryPoint {
    const char* name;
    const char* method;
    unsigned takes; // kinds of objects
    int pointers;   // that must not be null, beside the object
    // Calls with good arguments, or with one of those pointers null.
    std::function<int(RvpInstance*, kmp_obj*, int nulled)> call;
};

template <typename Type>
bool mustBeGiven(Type argument) {
    if constexpr (std::is_pointer_v<Type>) {
        return argument != nullptr;
    }
    return false;
}

// Of an entry point that takes an object and these good arguments, where a null one is allowed.
template <typename... Types>
EntryPoint entryPoint(const char* name, const char* method, unsigned takes,
                      int (*function)(RvpInstance*, kmp_obj*, Types...),
                      std::type_identity_t<Types>... good) {
    const auto call = [=](RvpInstance* instance, kmp_obj* object, int nulled) {
        int pointers = 0;
        [[maybe_unused]] const auto orNull = [&]<typename Type>(Type argument) {
            return mustBeGiven(argument) && pointers++ == nulled ? Type{} : argument;
        };
        const std::tuple<Types...> arguments{orNull(good)...};
        return std::apply([&](auto... each) { return function(instance, object, each...); },
                          arguments);
    };
    return {name, method, takes, (0 + ... + int{mustBeGiven(good)}), call};
}

class EntryPointTest : public VolumeTest {
  protected:
    kmp_extent extent = {};
    kmp_obj_prop* property = nullptr;
    kmp_stats stats = {};
    kmp_io_req request = {};
    kmp_file stat = {};
    kmp_fs fs = {};
    kmp_obj* out = nullptr;
    kmp_name* names = nullptr;
    char* text = nullptr;
    unsigned long position = 0;
    int number = 0;
    int flags = 0;

    const std::vector<EntryPoint> objectEntryPoints = {
        entryPoint("rvp_map_check_configid", "rvpMapCheckConfigId", FILES, rvp_map_check_configid,
                   &number),
        entryPoint("rvp_map_get_configid", "rvpMapGetConfigId", FILES, rvp_map_get_configid,
                   SOME_CONFIG, SOME_CONFIG, &number),
        entryPoint("rvp_map_get_extent", "rvpMapGetExtent", FILES, rvp_map_get_extent, 0, &extent,
                   1, &number, &flags, SOME_NODE),
        entryPoint("rvp_map_get_names", "rvpMapGetNames", FILES, rvp_map_get_names, 0, &names,
                   &number),
        entryPoint("rvp_map_get_obj_prop", "rvpMapGetObjProp", FILES | FILE_SYSTEMS,
                   rvp_map_get_obj_prop, &property),
        entryPoint("rvp_map_get_obj_stats", "rvpMapGetObjStats", FILES | FILE_SYSTEMS,
                   rvp_map_get_obj_stats, &stats),
        entryPoint("rvp_map_objctl", "rvpMapObjCtl", FILES | FILE_SYSTEMS, rvp_map_objctl, 9,
                   nullptr),
        entryPoint("rvp_map_readdir", "rvpMapReadDir", FILES, rvp_map_readdir, &request, &position),
        entryPoint("rvp_map_stat_file", "rvpMapStatFile", FILES, rvp_map_stat_file, &stat),
        entryPoint("rvp_map_stat_fs", "rvpMapStatFs", FILE_SYSTEMS, rvp_map_stat_fs, &fs),
        entryPoint("rvp_map_fs_exclude_unallocated", "rvpMapFsExcludeUnallocated", FILE_SYSTEMS,
                   rvp_map_fs_exclude_unallocated),
        entryPoint("rvp_map_open_file_index", "rvpMapOpenFileIndex", FILE_SYSTEMS,
                   rvp_map_open_file_index, 5, &out, KMP_OPEN_READ, &flags, nullptr),
        entryPoint("rvp_map_close", "rvpMapClose", FILES | FILE_SYSTEMS, rvp_map_close),
    };
};

// The lines of an argument refused with code 3: the check, the error twice, the result twice.
Lines refusal(const EntryPoint& entry, const char* check) {
    const std::string method = std::string(entry.method) + ":RvpFsoCoordinator ";
    return {method + "<ERROR> Exception: " + check,
            "log:Error <WARN> Error: 0x00000003 occured in file plugin/dorado/RvpFsoCoordinator",
            "log:Error <WARN> Error: 0x00000003 occured in file plugin/dorado/RvpFsoCoordinator",
            method + "<WARN> Returning: 3",
            std::string(entry.name) + ":libdorado <WARN> Returning: 3"};
}

Lines withoutSourceLines(Lines lines) {
    for (std::string& line : lines) {
        line = line.substr(0, line.find(", at line "));
    }
    return lines;
}

TEST_F(EntryPointTest, RefusesNullAndForeignHandles) {
    uint64_t foreignInstance[8] = {};
    const struct km_objid id = {};
    const std::string line = ":libdorado <ERROR> coordinator not allocated successfully";
    for (RvpInstance* bad :
         {static_cast<RvpInstance*>(nullptr), reinterpret_cast<RvpInstance*>(foreignInstance)}) {
        for (const EntryPoint& entry : objectEntryPoints) {
            log.clear();
            EXPECT_EQ(entry.call(bad, nullptr, NO_POINTER), 7) << entry.name;
            EXPECT_THAT(log.lines(),
                        ElementsAre(entry.name + line,
                                    entry.name + std::string(":libdorado <WARN> Returning: 7")));
        }
        EXPECT_EQ(rvp_map_open_id(bad, &id, nullptr, &out, 1, &flags, nullptr), 7);
        EXPECT_EQ(rvp_map_set_volume_read_callback(bad, readNothing, nullptr), 7);
        EXPECT_EQ(rvp_map_set_volume_optimize_callback(bad, anyOptimize, nullptr), 7);
        EXPECT_EQ(rvp_map_set_volume_extent_callback(bad, anyExtent, nullptr), 7);
        EXPECT_EQ(rvp_map_set_logical_sector_size(bad, 512), 7);
        EXPECT_EQ(rvp_map_set_keep_alive_callback(bad, anyKeepAlive), 7);
        EXPECT_EQ(rvp_map_errmsg(bad, 3, &text), 7);

        log.clear();
        EXPECT_EQ(rvp_map_claim_id(bad, &id), KM_CLAIM_NONE);
        EXPECT_EQ(rvp_map_claim_volume(bad, "v"), KM_CLAIM_NONE);
        rvp_map_fini(bad);
        EXPECT_THAT(log.lines(), ElementsAre("rvp_map_claim_id" + line,
                                             "rvp_map_claim_volume" + line, "rvp_map_fini" + line));
    }
}

TEST_F(EntryPointTest, RefusesBadArgumentsOfObjectCalls) {
    kmp_obj* file = openFile(volume);
    kmp_obj closed = {};
    uint64_t foreignObject[64] = {};
    kmp_obj foreign = {};
    foreign.provider = foreignObject;
    for (const EntryPoint& entry : objectEntryPoints) {
        const auto expectRefused = [&](kmp_obj* object, int nulled, const char* check) {
            log.clear();
            listener.heard.clear();
            EXPECT_EQ(entry.call(instance, object, nulled), 3) << entry.name;
            EXPECT_EQ(withoutSourceLines(log.lines()), refusal(entry, check)) << entry.name;
            EXPECT_THAT(listener.heard,
                        ElementsAre(ErrorListener::Heard{"Invalid argument(s)", true, 2}));
        };
        expectRefused(nullptr, NO_POINTER, "VERIFY_ORMA_BOOL");
        expectRefused(&closed, NO_POINTER, "VERIFY_ORMA_BOOL");
        for (int pointer = 0; pointer < entry.pointers; ++pointer) {
            kmp_obj* good = (entry.takes & FILES) != 0 ? file : volume;
            expectRefused(good, pointer, "VERIFY_ORMA_BOOL");
        }
        expectRefused(&foreign, NO_POINTER, "VERIFY_ORMA");
        if ((entry.takes & FILES) == 0) {
            expectRefused(file, NO_POINTER, "VERIFY_ORMA");
        } else if ((entry.takes & FILE_SYSTEMS) == 0 &&
                   entry.method != objectEntryPoints[0].method) {
            expectRefused(volume, NO_POINTER, "VERIFY_ORMA");
        }
    }
    // The first of them answers a file system without raising.
    log.clear();
    listener.heard.clear();
    EXPECT_EQ(rvp_map_check_configid(instance, volume, &number), 3);
    EXPECT_THAT(listener.heard, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("rvpMapCheckConfigId:RvpFsoCoordinator <WARN> Returning: 3",
                            "rvp_map_check_configid:libdorado <WARN> Returning: 3"));
}

TEST_F(EntryPointTest, ChecksTheArgumentsOfManagerCalls) {
    struct km_objid* id = km_objid("never", 6, 3);
    const auto open = [&](const struct km_objid* i, kmp_obj** o, int access, int* e) {
        return rvp_map_open_id(instance, i, nullptr, o, access, e, nullptr);
    };
    EXPECT_EQ(open(nullptr, &out, 1, &flags), 3);
    EXPECT_EQ(open(id, nullptr, 1, &flags), 3);
    EXPECT_EQ(open(id, &out, 1, nullptr), 3);
    for (int access = 0; access <= 4; ++access) {
        const bool reachesTheManager = access % 4 != 0;
        EXPECT_EQ(open(id, &out, access, &flags), reachesTheManager ? 1 : 3) << access;
    }
    km_free_objid(id);
    EXPECT_EQ(rvp_map_set_volume_read_callback(instance, nullptr, nullptr), 3);
    EXPECT_EQ(rvp_map_set_volume_optimize_callback(instance, nullptr, nullptr), 3);
    EXPECT_EQ(rvp_map_set_volume_optimize_callback(instance, anyOptimize, nullptr), 0);
    EXPECT_EQ(rvp_map_set_volume_extent_callback(instance, nullptr, nullptr), 3);
    EXPECT_EQ(rvp_map_set_volume_extent_callback(instance, anyExtent, nullptr), 0);
    EXPECT_EQ(rvp_map_set_keep_alive_callback(instance, nullptr), 3);
    EXPECT_EQ(rvp_map_set_logical_sector_size(instance, 1024), 3);
    EXPECT_EQ(rvp_map_set_logical_sector_size(instance, 4096), 0);

    log.clear();
    const struct km_objid nameless = {};
    EXPECT_EQ(open(&nameless, &out, 1, &flags), 3);
    EXPECT_EQ(log.lines()[0], "openId:RvpFsoFileSystemMgr <ERROR> Exception: VERIFY_PTR");
    log.clear();
    EXPECT_EQ(rvp_map_claim_id(instance, &nameless), KM_CLAIM_NONE);
    EXPECT_EQ(rvp_map_claim_volume(instance, nullptr), KM_CLAIM_NONE);
    const auto error = StartsWith("log:Error <WARN> Error: 0x00000003");
    EXPECT_THAT(
        log.lines(),
        ElementsAre("rvpMapClaimId:RvpFsoCoordinator <ERROR> Exception: VERIFY_ORMA_BOOL", error,
                    error,
                    "rvpMapClaimVolume:RvpFsoCoordinator <ERROR> Exception: VERIFY_ORMA_BOOL",
                    error, error));
}

TEST_F(EntryPointTest, TextsOfCodesAreKept) {
    EXPECT_EQ(rvp_map_errmsg(instance, 3, nullptr), 3);
    EXPECT_EQ(rvp_map_errmsg(instance, 99, &text), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(rvp_map_errmsg(instance, 2058, &text), 0);
    EXPECT_STREQ(text, "File index not allocated");
    char* again = nullptr;
    EXPECT_EQ(rvp_map_errmsg(instance, 2058, &again), 0);
    EXPECT_EQ(text, again);
}

TEST_F(EntryPointTest, WhatFilesDoNotSupportIsLoggedAsSuch) {
    kmp_obj* file = openFile(volume);
    log.clear();
    EXPECT_EQ(rvp_map_get_names(instance, file, 0, &names, &number), 4);
    EXPECT_EQ(rvp_map_check_configid(instance, file, &number), 4);
    EXPECT_THAT(log.lines(),
                ElementsAre("rvpMapGetNames:RvpFsoCoordinator <TRACE> Object: unnamed dorado file",
                            "getNames:RvpFsoFile <DEBUG> Returning: KMP_ENOTSUP",
                            "rvpMapGetNames:RvpFsoCoordinator <DEBUG> Returning: KMP_ENOTSUP",
                            "rvp_map_get_names:libdorado <DEBUG> Returning: KMP_ENOTSUP",
                            "rvpMapCheckConfigId:RvpFsoCoordinator <TRACE> Object: unnamed dorado "
                            "file",
                            "rvpMapCheckConfigId:RvpFsoCoordinator <DEBUG> Returning: KMP_ENOTSUP",
                            "rvp_map_check_configid:libdorado <DEBUG> Returning: KMP_ENOTSUP"));
    EXPECT_EQ(rvp_map_get_configid(instance, file, SOME_CONFIG, SOME_CONFIG, &number), 4);
    EXPECT_EQ(rvp_map_get_obj_stats(instance, file, &stats), 4);
    EXPECT_EQ(close(file), 0);
    EXPECT_EQ(script->calls.back(), "closeFile");
}

TEST_F(EntryPointTest, StatFsNamesTheVolumeTwice) {
    EXPECT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(StartsWith("rvpMapStatFs:RvpFsoCoordinator <TRACE> FS Name:"),
                            "rvpMapStatFs:RvpFsoCoordinator <TRACE> Object: VOL1"));
}

TEST_F(EntryPointTest, TwoInstancesShareTheHandlerAndTheLibrary) {
    RvpInstance* second = nullptr;
    ErrorListener later;
    ASSERT_EQ(rvp_map_init(&second, &later, &number), 0);
    EXPECT_EQ(rvp_map_claim_volume(second, "B"), KM_CLAIM_SECONDARY);
    EXPECT_EQ(std::ranges::count(script->calls, "libInit"), 1);
    EXPECT_EQ(rvp_map_stat_fs(instance, nullptr, nullptr), 3);
    EXPECT_EQ(later.heard.size(), 1U) << "the last handler given counts";
    rvp_map_fini(second);
    EXPECT_EQ(std::ranges::count(script->calls, "libFini"), 0);
    EXPECT_EQ(rvp_map_stat_fs(instance, nullptr, nullptr), 3);
    EXPECT_THAT(listener.heard, IsEmpty()) << "the end of one instance took the handler away";
}

// A host that wants no log: the decision falls before its first call.
struct Silence {
    Silence() { km_debug_level = 0; }
};
class SilentTest : Silence, public EntryPointTest {};

TEST_F(SilentTest, AnswersTheSameAndLogsNothing) {
    kmp_obj* file = openFile(volume);
    for (const EntryPoint& entry : objectEntryPoints) {
        EXPECT_EQ(entry.call(nullptr, file, NO_POINTER), 7) << entry.name;
        EXPECT_EQ(entry.call(instance, nullptr, NO_POINTER), 3) << entry.name;
    }
    EXPECT_EQ(listener.heard.size(), objectEntryPoints.size());
    EXPECT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    EXPECT_EQ(rvp_map_objctl(instance, volume, 77, nullptr), 3);
    EXPECT_EQ(rvp_map_objctl(instance, volume, KMP_OCSETEXTFS, nullptr), 4);
    EXPECT_EQ(rvp_map_get_names(instance, file, 0, &names, &number), 4);
    EXPECT_EQ(rvp_map_readdir(instance, file, &request, &position), KMP_ERRNO_BASE + errno);
    script->extents = {{0, 0, 0, 0}};
    script->extentCount = 1;
    EXPECT_EQ(rvp_map_get_extent(instance, file, 0, &extent, 1, &number, &flags, SOME_NODE), 0);
    EXPECT_EQ(script->log(FS_LOG_WARNING, "a line of the library\n"), 1);
    EXPECT_EQ(rvp_map_stat_fs(instance, openVolume("VOL1", KMP_OPEN_WRITE), &fs), 4);
    script->fs.fileCount = 0;
    EXPECT_EQ(rvp_map_claim_id(instance, volume->id), KM_CLAIM_PRIMARY);
    EXPECT_EQ(rvp_map_open_id(instance, volume->id, nullptr, &out, 1, &flags, nullptr), 3);
    script->recognises = false;
    EXPECT_EQ(rvp_map_claim_volume(instance, "B"), KM_CLAIM_NONE);
    EXPECT_EQ(rvp_map_claim_id(instance, file->id), KM_CLAIM_NONE);
    script->closeFileStatus = FSO_IO;
    script->closeObjectStatus = FSO_IO;
    end();
    EXPECT_EQ(script->calls.back(), "libFini");
    EXPECT_THAT(log.caught, IsEmpty());
}

} // namespace
