// The entry points that the host calls: each finds its instance's coordinator, forwards the call
// and logs the result once more.
#include "Error.h"
#include "RvpFsoCoordinator.h"
#include "kmp/rvp_map.h"

#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace {

// "RNTI" read as a 32-bit value: the mark of an instance whose initialisation succeeded.
constexpr uint32_t INSTANCE_SIGNATURE = 0x49544E52;

} // namespace

// The handle that the host holds.
struct RvpInstance {
    explicit RvpInstance(RvpFsoFileSystemMgr* mgr) : coordinator(mgr) {}

    uint32_t signature = 0;
    RvpFsoCoordinator coordinator;
};

namespace {

RvpFsoCoordinator* getCoordinator(RvpInstance* instance) {
    if (instance == nullptr || instance->signature != INSTANCE_SIGNATURE) {
        return nullptr;
    }
    return &instance->coordinator;
}

// The coordinator, or null after the line that says so.
inline RvpFsoCoordinator* coordinatorOrLine(RvpInstance* instance, CallSite site) {
    RvpFsoCoordinator* coordinator = getCoordinator(instance);
    if (coordinator == nullptr) [[unlikely]] {
        PLUGIN_LOG_AS(site.function, site.line, 0, "coordinator not allocated successfully\n");
    }
    return coordinator;
}

template <typename Method, typename... Arguments>
int unloggedCall(CallSite site, RvpInstance* instance, Method method, Arguments... arguments) {
    RvpFsoCoordinator* coordinator = coordinatorOrLine(instance, site);
    return coordinator != nullptr ? (coordinator->*method)(arguments...) : int{KMP_ENOTINIT};
}

// The shell of an entry point. The coordinator has logged the result as well; both lines stay.
template <typename Method, typename... Arguments>
int call(CallSite site, RvpInstance* instance, Method method, Arguments... arguments) {
    const int result = unloggedCall(site, instance, method, arguments...);
    return plugin_log_result(result, SOURCE_FILE, site.function, site.line);
}

// The shell of a claim: the answer is no code and has no line.
template <typename Method, typename Argument>
int claim(CallSite site, RvpInstance* instance, Method method, Argument argument) {
    RvpFsoCoordinator* coordinator = coordinatorOrLine(instance, site);
    return coordinator != nullptr ? (coordinator->*method)(argument) : int{KM_CLAIM_NONE};
}

struct FreeRoom {
    void operator()(void* room) const { ::operator delete(room); }
};

struct DestroyInstance {
    void operator()(RvpInstance* instance) const {
        instance->~RvpInstance();
        ::operator delete(instance);
    }
};
using OwnedInstance = std::unique_ptr<RvpInstance, DestroyInstance>;

// Builds an uninitialised instance in `room`; what a constructor throws passes through.
OwnedInstance buildInstance(std::unique_ptr<void, FreeRoom> room) {
    auto mgr = std::make_unique<RvpFsoFileSystemMgr>();
    auto* instance = new (room.get()) RvpInstance(mgr.get());
    mgr.release();
    room.release();
    return OwnedInstance(instance);
}

} // namespace

extern "C" {

int rvp_map_init(RvpInstance** instance, kmp_ehandler* handler, int* apiVersion) {
    std::unique_ptr<void, FreeRoom> room(::operator new(sizeof(RvpInstance), std::nothrow));
    if (room == nullptr) {
        PLUGIN_LOG(0, "coordinator not allocated successfully\n");
        return plugin_log_result(KMP_ESYSTEM, SOURCE_FILE);
    }
    OwnedInstance built = buildInstance(std::move(room));
    const int result = built->coordinator.rvpMapInit(handler, apiVersion);
    if (result != KMP_OK) {
        PLUGIN_LOG(0, "Not able to initialize the plug-in\n");
        built.reset();
        return plugin_log_result(result, SOURCE_FILE);
    }
    built->signature = INSTANCE_SIGNATURE;
    *instance = built.release();
    return KMP_OK;
}

void rvp_map_fini(RvpInstance* instance) {
    RvpFsoCoordinator* coordinator = coordinatorOrLine(instance, here());
    if (coordinator == nullptr) {
        return;
    }
    coordinator->rvpMapFini();
    DestroyInstance()(instance);
}

int rvp_map_claim_id(RvpInstance* instance, const struct km_objid* id) {
    return claim(here(), instance, &RvpFsoCoordinator::rvpMapClaimId, id);
}

int rvp_map_claim_volume(RvpInstance* instance, const char* volumeName) {
    return claim(here(), instance, &RvpFsoCoordinator::rvpMapClaimVolume, volumeName);
}

int rvp_map_open_id(RvpInstance* instance, const struct km_objid* id, const char* name,
                    kmp_obj** object, int flags, int* error, const void* extra) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapOpenId, id, name, object, flags, error,
                extra);
}

int rvp_map_open_file_index(RvpInstance* instance, kmp_obj* fileSystem, unsigned long index,
                            kmp_obj** object, int flags, int* error, const void* extra) {
    const int result = unloggedCall(here(), instance, &RvpFsoCoordinator::rvpMapOpenFileIndex,
                                    fileSystem, index, object, flags, error, extra);
    if (result == KMP_ENOTALLOCATED || result == KMP_ERESERVEDINODE) {
        return result;
    }
    return plugin_log_result(result, SOURCE_FILE);
}

int rvp_map_close(RvpInstance* instance, kmp_obj* object) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapClose, object);
}

int rvp_map_check_configid(RvpInstance* instance, kmp_obj* object, int* result) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapCheckConfigId, object, result);
}

int rvp_map_get_configid(RvpInstance* instance, kmp_obj* object, const kmp_configid* in,
                         kmp_configid* out, int* result) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapGetConfigId, object, in, out, result);
}

int rvp_map_get_extent(RvpInstance* instance, kmp_obj* object, unsigned long offset,
                       kmp_extent* extents, int count, int* returned, int* flags,
                       kmp_mapdomain_node* node) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapGetExtent, object, offset, extents,
                count, returned, flags, node);
}

int rvp_map_get_names(RvpInstance* instance, kmp_obj* object, int which, kmp_name** names,
                      int* count) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapGetNames, object, which, names, count);
}

int rvp_map_get_obj_prop(RvpInstance* instance, kmp_obj* object, kmp_obj_prop** properties) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapGetObjProp, object, properties);
}

int rvp_map_get_obj_stats(RvpInstance* instance, kmp_obj* object, kmp_stats* stats) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapGetObjStats, object, stats);
}

int rvp_map_objctl(RvpInstance* instance, kmp_obj* object, int command, void* argument) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapObjCtl, object, command, argument);
}

int rvp_map_readdir(RvpInstance* instance, kmp_obj* object, kmp_io_req* request,
                    unsigned long* position) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapReadDir, object, request, position);
}

int rvp_map_stat_file(RvpInstance* instance, kmp_obj* object, kmp_file* stat) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapStatFile, object, stat);
}

int rvp_map_stat_fs(RvpInstance* instance, kmp_obj* fileSystem, kmp_fs* stat) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapStatFs, fileSystem, stat);
}

int rvp_map_fs_exclude_unallocated(RvpInstance* instance, kmp_obj* fileSystem) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapFsExcludeUnallocated, fileSystem);
}

int rvp_map_set_volume_read_callback(RvpInstance* instance,
                                     bool (*read)(void*, unsigned long, unsigned long, char*),
                                     void* context) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapSetVolumeReadCallback, read, context);
}

int rvp_map_set_volume_optimize_callback(RvpInstance* instance,
                                         bool (*optimize)(void*, unsigned long, unsigned long,
                                                          bool),
                                         void* context) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapSetVolumeOptimizeCallback, optimize,
                context);
}

int rvp_map_set_volume_extent_callback(RvpInstance* instance,
                                       bool (*extent)(void*, unsigned long, unsigned long,
                                                      unsigned long&, bool&),
                                       void* context) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapSetVolumeExtentCallback, extent,
                context);
}

int rvp_map_set_logical_sector_size(RvpInstance* instance, unsigned int sectorSize) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapSetLogicalSectorSize, sectorSize);
}

int rvp_map_set_keep_alive_callback(RvpInstance* instance, int (*keepAlive)(void*)) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapSetKeepAliveCallback, keepAlive);
}

int rvp_map_errmsg(RvpInstance* instance, int code, char** text) {
    return call(here(), instance, &RvpFsoCoordinator::rvpMapErrMsg, code, text);
}

} // extern "C"
