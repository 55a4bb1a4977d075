// One file of an opened file system, named by its index: attributes, entries, metadata and extents.
//
// Made by RvpFsoFileSystem::openFileIndex; belongs to the host from then on. The file system object
// and its library object must outlive it. Destruction closes the file in the library, even when the
// library failed to open it.
#ifndef DORADO_RVPFSOFILE_H
#define DORADO_RVPFSOFILE_H

#include "RvpFsoObject.h"
#include "RvpLinuxCommon.h"
#include "fso/IFileSystemObjectV1.h"

class RvpFsoFileSystem;

class RvpFsoFile : public RvpFsoObject, public RvpLinuxCommon {
  public:
    RvpFsoFile(RvpFsoFileSystem* owner, unsigned long index);
    ~RvpFsoFile() override;

    // Opens the file in the library; any failure there is KMP_ESYSTEM. Sets KMP_OPEN_SPECIAL in
    // `*openFlags` for everything but regular files and directories.
    int init(kmp_obj** object, int flags, int* openFlags);

    // Up to `capacity` runs from byte `offset` on, lengths rounded up to the logical sector size.
    // Throws OrmaError 1 when the library reports no run or too many, whatever its status.
    int getExtent(unsigned long offset, kmp_extent* extents, int capacity, int* count, int* done,
                  kmp_mapdomain_node* node) override;
    int getObjProp(kmp_obj_prop** property) override;
    // Command 3 alone: getFileMetadata.
    int objCtl(int command, void* argument) override;
    // Throws LinuxError when this is no directory.
    int readDir(kmp_io_req* request, unsigned long* count) override;
    int statFile(kmp_file* file) override;
    virtual int getNames(int which, kmp_name** names, int* count);

    // The pieces point into this object and the library; they last until the file is closed.
    int getFileMetadata(kmp_extfile* metadata);

    RvpFsoFileSystem* fileSystem; // not owned
    uint64_t fileIndex;
    fso_file_record fileRecord;
    char metadataText[40];
    IFileSystemObjectV1* fso; // not owned

  private:
    void fillExtent(kmp_extent& extent, const fso_extent& run) const;
};
static_assert(sizeof(RvpFsoFile) == 384);

#endif
