// Stands between the entry points and the provider: checks what the host passes, forwards the call
// and is the one place where the library's errors are caught and become host codes.
//
// It owns the manager. Exceptions other than `Error` pass through. Nothing is locked.
#ifndef DORADO_RVPFSOCOORDINATOR_H
#define DORADO_RVPFSOCOORDINATOR_H

#include "RvpFsoFileSystemMgr.h"
#include "SourcePlace.h"
#include "kmp/kmp.h"

#include <list>

class OrmaError;

// A text that the host asked for. The error is never deleted: the host keeps its text.
struct ORMA_ERROR {
    int code;
    OrmaError* error;
};

class RvpFsoCoordinator {
  public:
    // Takes the manager over. Throws OrmaError 3 for a null manager.
    explicit RvpFsoCoordinator(RvpFsoFileSystemMgr* mgr);
    RvpFsoCoordinator(const RvpFsoCoordinator&) = delete;
    RvpFsoCoordinator& operator=(const RvpFsoCoordinator&) = delete;
    virtual ~RvpFsoCoordinator();

    int rvpMapInit(kmp_ehandler* handler, int* apiVersion);
    void rvpMapFini();

    // One method an entry point, with the same arguments and results.
    int rvpMapClaimId(const struct km_objid* id);
    int rvpMapClaimVolume(const char* volumeName);
    int rvpMapOpenId(const struct km_objid* id, const char* name, kmp_obj** object, int flags,
                     int* error, const void* extra);
    int rvpMapOpenFileIndex(kmp_obj* fileSystem, unsigned long index, kmp_obj** object, int flags,
                            int* error, const void* extra);
    int rvpMapClose(kmp_obj* object);
    int rvpMapCheckConfigId(kmp_obj* object, int* result);
    int rvpMapGetConfigId(kmp_obj* object, const kmp_configid* in, kmp_configid* out, int* result);
    int rvpMapGetExtent(kmp_obj* object, unsigned long offset, kmp_extent* extents, int count,
                        int* returned, int* flags, kmp_mapdomain_node* node);
    int rvpMapGetNames(kmp_obj* object, int which, kmp_name** names, int* count);
    int rvpMapGetObjProp(kmp_obj* object, kmp_obj_prop** properties);
    int rvpMapGetObjStats(kmp_obj* object, kmp_stats* stats);
    int rvpMapObjCtl(kmp_obj* object, int command, void* argument);
    int rvpMapReadDir(kmp_obj* object, kmp_io_req* request, unsigned long* position);
    int rvpMapStatFile(kmp_obj* object, kmp_file* stat);
    int rvpMapStatFs(kmp_obj* fileSystem, kmp_fs* stat);
    int rvpMapFsExcludeUnallocated(kmp_obj* fileSystem);
    int rvpMapSetVolumeReadCallback(volume_read_callback read, void* context);
    int rvpMapSetVolumeOptimizeCallback(volume_optimize_callback optimize, void* context);
    int rvpMapSetVolumeExtentCallback(volume_extent_callback extent, void* context);
    int rvpMapSetLogicalSectorSize(unsigned int sectorSize);
    int rvpMapSetKeepAliveCallback(keep_alive_callback keepAlive);
    int rvpMapErrMsg(int code, char** text);

  private:
    template <typename Operation>
    int guarded(CallSite site, Operation operation);
    template <typename Operation>
    int guardedClaim(CallSite site, int& caught, Operation operation);
    const OrmaError* errorOf(int code, const char* function);

    bool m_isInitialized;
    RvpFsoFileSystemMgr* m_pFsMgr;
    std::list<ORMA_ERROR> m_errorList; // in order of first request
};

#endif
