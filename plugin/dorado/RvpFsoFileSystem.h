// One opened file system: a claimed volume as seen through its library object.
//
// Made and initialised by the manager; belongs to the host once opened. The library object belongs
// to the manager and is shared by all openings of the volume. Files opened here must be closed
// before this object.
#ifndef DORADO_RVPFSOFILESYSTEM_H
#define DORADO_RVPFSOFILESYSTEM_H

#include "RvpFsoObject.h"
#include "fso/IFileSystemObjectV1.h"

#include <string>

class RvpFsoFileSystem : public RvpFsoObject {
  public:
    explicit RvpFsoFileSystem(const std::string& name);
    ~RvpFsoFileSystem() override;

    // Reads the file-system record. `initialised` tells whether that went well; else the result is
    // KMP_ESYSTEM. Throws OrmaError 3 for a null library object.
    int init(unsigned long logicalSectorSize, IFileSystemObjectV1* library);

    // Without KMP_OPEN_READ in the flags of openFileSystem these answer KMP_ENOTSUP, but for
    // getObjStats.
    int getObjProp(kmp_obj_prop** property) override;
    int getObjStats(kmp_stats* stats) override;
    int objCtl(int command, void* argument) override;
    int statFs(kmp_fs* fs) override;
    // Remembers the flags and hands out the record.
    virtual int openFileSystem(kmp_obj** object, int flags, int* hostFlags);

    // Opens a file; `*object` is null after a failure of the open.
    int openFileIndex(unsigned long index, kmp_obj** object, int flags, int* hostFlags);

    // The control operations behind objCtl.
    int getVolumeName(void* argument);
    int getVolumeUuid(void* argument);
    int getTraverseType(void* argument);
    int getTraverseAttribute(void* argument);
    int getRootIndex(void* argument);

    // What extent lengths are rounded up to: the logical sector size, a byte where none is set.
    uint64_t roundingSize() const { return sectorSize != 0 ? sectorSize : 1; }

    struct km_objid* volumeId; // owned; null for an empty name
    std::string volumeName;
    int32_t openFlags;
    fso_fs_record fsRecord;
    bool initialised;
    IFileSystemObjectV1* fso; // not owned
    uint64_t sectorSize;

  private:
    bool isReadable() const { return (openFlags & KMP_OPEN_READ) != 0; }
    int control(int command, void* argument);
};
static_assert(sizeof(RvpFsoFileSystem) == 424);

#endif
