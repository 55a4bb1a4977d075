// Every entry point with every kind of bad handle, argument and object, and the lines it leaves.
#include "ProviderFixture.h"

#include "RvpFsoObject.h"

#include <functional>
#include <tuple>
#include <type_traits>

namespace {

constexpr unsigned FILES = FSO_FILE_OBJECT;
constexpr unsigned VOLUMES = FSO_FILE_SYSTEM_OBJECT;
constexpr unsigned ANY = FILES | VOLUMES;

struct EntryPoint {
    std::string name;
    std::string method; // of the coordinator
    unsigned takes;     // kinds of objects
    int checked;        // arguments beside the object
    std::function<int()> call;
};

class EntryPointTest : public VolumeTest {
  protected:
    // An argument of a call: the object, 1, a pointer to anything or, when it is its turn, null.
    template <typename Type>
    Type argument() {
        if constexpr (std::is_same_v<Type, kmp_obj*>) {
            return object;
        } else if constexpr (std::is_pointer_v<Type>) {
            return reinterpret_cast<Type>(turn++ == leftOut ? nullptr : room);
        } else {
            return 1;
        }
    }

    template <typename... Types>
    std::function<int()> of(int (*function)(RvpInstance*, Types...)) {
        return [this, function] {
            const std::tuple<Types...> arguments{argument<Types>()...};
            return std::apply([&](auto... each) { return function(handle, each...); }, arguments);
        };
    }

    // Makes a call, as a rule with the first argument bad.
    int call(const EntryPoint& entry, kmp_obj* with, int bad = 0) {
        object = with;
        leftOut = bad;
        turn = 0;
        log.clear();
        listener.heard.clear();
        return entry.call();
    }

    RvpInstance* handle = instance;
    kmp_obj* object = nullptr;
    int leftOut = 0;
    int turn = 0;
    uint64_t room[64] = {}; // also a foreign instance, and an object that is not the provider's

    const std::vector<EntryPoint> entryPoints = {
        {"rvp_map_check_configid", "rvpMapCheckConfigId", ANY, 1, of(rvp_map_check_configid)},
        {"rvp_map_get_configid", "rvpMapGetConfigId", FILES, 3, of(rvp_map_get_configid)},
        {"rvp_map_get_extent", "rvpMapGetExtent", FILES, 4, of(rvp_map_get_extent)},
        {"rvp_map_get_names", "rvpMapGetNames", FILES, 2, of(rvp_map_get_names)},
        {"rvp_map_get_obj_prop", "rvpMapGetObjProp", ANY, 1, of(rvp_map_get_obj_prop)},
        {"rvp_map_get_obj_stats", "rvpMapGetObjStats", ANY, 1, of(rvp_map_get_obj_stats)},
        {"rvp_map_objctl", "rvpMapObjCtl", ANY, 0, of(rvp_map_objctl)},
        {"rvp_map_readdir", "rvpMapReadDir", FILES, 2, of(rvp_map_readdir)},
        {"rvp_map_stat_file", "rvpMapStatFile", FILES, 1, of(rvp_map_stat_file)},
        {"rvp_map_stat_fs", "rvpMapStatFs", VOLUMES, 1, of(rvp_map_stat_fs)},
        {"rvp_map_fs_exclude_unallocated", "rvpMapFsExcludeUnallocated", VOLUMES, 0,
         of(rvp_map_fs_exclude_unallocated)},
        {"rvp_map_open_file_index", "rvpMapOpenFileIndex", VOLUMES, 2, of(rvp_map_open_file_index)},
        {"rvp_map_close", "rvpMapClose", ANY, 0, of(rvp_map_close)},
        {"rvp_map_set_volume_read_callback", "rvpMapSetVolumeReadCallback", 0, 1,
         of(rvp_map_set_volume_read_callback)},
        {"rvp_map_set_volume_optimize_callback", "rvpMapSetVolumeOptimizeCallback", 0, 1,
         of(rvp_map_set_volume_optimize_callback)},
        {"rvp_map_set_volume_extent_callback", "rvpMapSetVolumeExtentCallback", 0, 1,
         of(rvp_map_set_volume_extent_callback)},
        {"rvp_map_set_keep_alive_callback", "rvpMapSetKeepAliveCallback", 0, 1,
         of(rvp_map_set_keep_alive_callback)},
        {"rvp_map_set_logical_sector_size", "rvpMapSetLogicalSectorSize", 0, 1,
         of(rvp_map_set_logical_sector_size)},
        {"rvp_map_errmsg", "rvpMapErrMsg", 0, 1, of(rvp_map_errmsg)},
    };
};

TEST_F(EntryPointTest, RefusesNullAndForeignHandles) {
    const std::string line = ":libdorado <ERROR> coordinator not allocated successfully";
    for (void* bad : {static_cast<void*>(nullptr), static_cast<void*>(room)}) {
        handle = static_cast<RvpInstance*>(bad);
        for (const EntryPoint& entry : entryPoints) {
            EXPECT_EQ(call(entry, nullptr), 7) << entry.name;
            EXPECT_THAT(log.lines(), ElementsAre(entry.name + line,
                                                 entry.name + ":libdorado <WARN> Returning: 7"));
        }
        EXPECT_EQ(rvp_map_open_id(handle, nullptr, nullptr, nullptr, 1, &flags, nullptr), 7);
        EXPECT_EQ(rvp_map_claim_volume(handle, "v"), KM_CLAIM_NONE);
        EXPECT_EQ(log.lines().back(), "rvp_map_claim_volume" + line);
        EXPECT_EQ(rvp_map_claim_id(handle, nullptr), KM_CLAIM_NONE);
        EXPECT_EQ(log.lines().back(), "rvp_map_claim_id" + line);
        rvp_map_fini(handle);
        EXPECT_EQ(log.lines().back(), "rvp_map_fini" + line);
    }
}

TEST_F(EntryPointTest, RefusesBadArguments) {
    kmp_obj* file = openFile(volume);
    kmp_obj closed = {};
    kmp_obj foreign = {};
    foreign.provider = room;
    for (const EntryPoint& entry : entryPoints) {
        const auto expectRefused = [&](kmp_obj* with, int bad, const std::string& check) {
            EXPECT_EQ(call(entry, with, bad), 3) << entry.name;
            EXPECT_THAT(listener.heard, ElementsAre(Heard{"Invalid argument(s)", true, 2}));
            // The error and the result have two lines each.
            const std::string method = entry.method + ":RvpFsoCoordinator ";
            const auto error = testing::StartsWith("log:Error <WARN> Error: 0x00000003 occured in "
                                                   "file plugin/dorado/RvpFsoCoordinator, at");
            EXPECT_THAT(log.lines(), ElementsAre(method + "<ERROR> Exception: " + check, error,
                                                 error, method + "<WARN> Returning: 3",
                                                 entry.name + ":libdorado <WARN> Returning: 3"));
        };
        kmp_obj* good = (entry.takes & FILES) != 0 ? file : volume;
        for (int bad = 0; bad < entry.checked; ++bad) {
            expectRefused(good, bad, "VERIFY_ORMA_BOOL");
        }
        if (entry.takes == 0) {
            continue;
        }
        const int none = entry.checked;
        expectRefused(nullptr, none, "VERIFY_ORMA_BOOL");
        expectRefused(&closed, none, "VERIFY_ORMA_BOOL");
        expectRefused(&foreign, none, "VERIFY_ORMA");
        if (entry.takes != ANY) {
            expectRefused(good == file ? volume : file, none, "VERIFY_ORMA");
        }
    }
}

TEST_F(EntryPointTest, RefusesWrongIdsAndAccess) {
    struct km_objid id = idOf("unknown");
    kmp_obj* out = nullptr;
    for (int access = 0; access <= 4; ++access) {
        const bool passes = access % 4 != 0; // and fails further on
        EXPECT_EQ(rvp_map_open_id(instance, &id, nullptr, &out, access, &flags, nullptr),
                  passes ? 1 : 3);
        EXPECT_EQ(rvp_map_open_file_index(instance, volume, ~0UL, &out, access, &flags, nullptr),
                  passes ? 4 : 3);
    }
    EXPECT_EQ(rvp_map_open_id(instance, nullptr, nullptr, &out, 1, &flags, nullptr), 3);
    EXPECT_EQ(rvp_map_open_id(instance, &id, nullptr, nullptr, 1, &flags, nullptr), 3);
    EXPECT_EQ(rvp_map_open_id(instance, &id, nullptr, &out, 1, nullptr, nullptr), 3);
    id.name = nullptr;
    EXPECT_EQ(rvp_map_open_id(instance, &id, nullptr, &out, 1, &flags, nullptr), 3);
    log.clear();
    EXPECT_EQ(rvp_map_claim_volume(instance, nullptr), KM_CLAIM_NONE);
    EXPECT_EQ(rvp_map_claim_id(instance, nullptr), KM_CLAIM_NONE);
    EXPECT_EQ(rvp_map_claim_id(instance, &id), KM_CLAIM_NONE);
    EXPECT_EQ(log.lines().size(), 9U) << "claims have no result line";
}

TEST_F(EntryPointTest, NamesItsObjectAndLogsWhatIsNotSupported) {
    kmp_fs fs;
    EXPECT_EQ(rvp_map_stat_fs(instance, volume, &fs), 0);
    EXPECT_THAT(log.lines(),
                ElementsAre(testing::StartsWith("rvpMapStatFs:RvpFsoCoordinator <TRACE> FS Name:"),
                            "rvpMapStatFs:RvpFsoCoordinator <TRACE> Object: VOL1"));
    kmp_obj* file = openFile(volume);
    kmp_name* names = nullptr;
    log.clear();
    EXPECT_EQ(rvp_map_get_names(instance, file, 0, &names, &flags), 4);
    EXPECT_EQ(rvp_map_check_configid(instance, volume, &flags), 3);
    EXPECT_THAT(listener.heard, IsEmpty());
    EXPECT_THAT(log.lines(),
                ElementsAre("rvpMapGetNames:RvpFsoCoordinator <TRACE> Object: unnamed dorado file",
                            "getNames:RvpFsoFile <DEBUG> Returning: KMP_ENOTSUP",
                            "rvpMapGetNames:RvpFsoCoordinator <DEBUG> Returning: KMP_ENOTSUP",
                            "rvp_map_get_names:libdorado <DEBUG> Returning: KMP_ENOTSUP",
                            "rvpMapCheckConfigId:RvpFsoCoordinator <WARN> Returning: 3",
                            "rvp_map_check_configid:libdorado <WARN> Returning: 3"));
    auto* config = reinterpret_cast<kmp_configid*>(room);
    EXPECT_EQ(rvp_map_check_configid(instance, file, &flags), 4);
    EXPECT_EQ(rvp_map_get_configid(instance, file, config, config, &flags), 4);
}

TEST_F(EntryPointTest, GivesTheTextsOfCodes) {
    char* text = nullptr;
    EXPECT_EQ(rvp_map_errmsg(instance, 99, &text), 0);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(rvp_map_errmsg(instance, 2058, &text), 0);
    EXPECT_STREQ(text, "File index not allocated");
}

TEST_F(EntryPointTest, TheHandlerIsThatOfTheLastInstanceAndGoesWithAny) {
    RvpInstance* second = nullptr;
    ErrorListener later;
    ASSERT_EQ(rvp_map_init(&second, &later, &flags), 0);
    EXPECT_EQ(rvp_map_close(instance, nullptr), 3);
    rvp_map_fini(second);
    EXPECT_EQ(rvp_map_close(instance, nullptr), 3);
    EXPECT_EQ(later.heard.size(), 1U);
    EXPECT_THAT(listener.heard, IsEmpty());
}

// A host that wants no log: the decision falls before its first call.
struct Silence {
    Silence() { km_debug_level = 0; }
};
class SilentTest : Silence, public EntryPointTest {};

TEST_F(SilentTest, AnswersTheSameAndLogsNothing) {
    kmp_obj* file = openFile(volume);
    for (const EntryPoint& entry : entryPoints) {
        if (entry.takes != 0) {
            EXPECT_EQ(call(entry, nullptr), 3) << entry.name;
            EXPECT_EQ(listener.heard.size(), 1U);
        }
    }
    EXPECT_EQ(rvp_map_objctl(instance, volume, 77, nullptr), 3);
    EXPECT_EQ(rvp_map_objctl(instance, volume, KMP_OCSETEXTFS, nullptr), 4);
    kmp_name* names = nullptr;
    EXPECT_EQ(rvp_map_get_names(instance, file, 0, &names, &flags), 4);
    EXPECT_EQ(script.log(FS_LOG_WARNING, "a line of the library\n"), 1);
    handle = nullptr;
    EXPECT_EQ(call(entryPoints.front(), file), 7);
    script.status = {{"closeFile", FSO_IO}, {"closeFileSystemObject", FSO_IO}};
    end();
    EXPECT_THAT(log.caught, IsEmpty());
}

} // namespace
