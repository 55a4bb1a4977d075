// The provider's manager: loads the file-system-object library, claims volumes and opens them.
//
// One manager an instance. It keeps the host's callbacks and the claimed volumes with their library
// objects, which it alone releases, at its destruction; opened objects belong to the host. The
// library is loaded at the first claim and initialised once in the life of the process.
#ifndef DORADO_RVPFSOFILESYSTEMMGR_H
#define DORADO_RVPFSOFILESYSTEMMGR_H

#include "fso/IFileSystemObjectV1.h"
#include "kmp/kmp.h"

#include <cstdint>
#include <list>
#include <string>
#include <utility>

class RvpFsoFile;
class RvpFsoFileSystem;

using volume_read_callback = bool (*)(void* context, unsigned long offset, unsigned long length,
                                      char* buffer);
using volume_optimize_callback = bool (*)(void*, unsigned long, unsigned long, bool);
using volume_extent_callback = bool (*)(void*, unsigned long, unsigned long, unsigned long&, bool&);
using keep_alive_callback = int (*)(void*);

class RvpFsoFileSystemMgr {
  public:
    RvpFsoFileSystemMgr();
    RvpFsoFileSystemMgr(const RvpFsoFileSystemMgr&) = delete;
    RvpFsoFileSystemMgr& operator=(const RvpFsoFileSystemMgr&) = delete;

    // The order of the slots is fixed. The setters answer 0.
    virtual ~RvpFsoFileSystemMgr();
    virtual int setVolumeReadCallback(volume_read_callback read, void* context);
    virtual int setVolumeOptimizeCallback(volume_optimize_callback optimize, void* context);
    virtual int setVolumeExtentCallback(volume_extent_callback extent, void* context);
    // Probes the volume behind the read callback: KM_CLAIM_SECONDARY or KM_CLAIM_NONE. Throws
    // OrmaError 3 when the library or one of its entry points is missing.
    virtual int claim(const char* volumeName);
    virtual int setLogicalSectorSize(unsigned int size);
    virtual int excludeUnallocated(RvpFsoFileSystem* fileSystem);
    virtual int setKeepAliveCallback(keep_alive_callback keepAlive);
    // KM_CLAIM_PRIMARY for the name of a claimed volume, in any case, else KM_CLAIM_NONE.
    virtual int claimId(const struct km_objid* id);
    // Opens the first claimed volume of the id's name; `*object` is null after a failure.
    virtual int openId(const struct km_objid* id, const char* name, kmp_obj** object, int flags,
                       int* error);

    // Fills `installPath`; cannot fail.
    bool getOrmaInstallPath();
    // The path of a library of the host, or with a null name their directory with a slash behind.
    void resolveFsoPath(std::string& path, const char* libraryName);

    uint32_t logicalSectorSize;
    volume_read_callback readCallback;
    void* readContext;
    volume_optimize_callback optimizeCallback; // kept, never passed on
    void* optimizeContext;
    volume_extent_callback extentCallback; // kept, never passed on
    void* extentContext;
    keep_alive_callback keepAliveCallback;
    void* libraryHandle;
    const fso_info* libraryInfo; // null unless this manager initialised the library
    char installPath[261];
    std::list<std::pair<std::string, IFileSystemObjectV1*>> volumes; // in claim order

  private:
    const std::pair<std::string, IFileSystemObjectV1*>* findVolume(const char* name) const;
    void closeVolumes();
    void finishLibrary();
};
static_assert(sizeof(RvpFsoFileSystemMgr) == 376);

// Closes and deletes a file object.
void closeRvpFsoFile(RvpFsoFile* file);

// Takes the library's log lines; the text is used as a format. Always 1.
int FSOLogCallback(fs_log_level_t level, const char* text);

#endif
