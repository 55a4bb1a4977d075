#include "RvpFsoFile.h"

#include "Error.h"
#include "FsoStatus.h"
#include "RvpFsoFileSystem.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <sys/stat.h>

namespace {

constexpr const char* FSO_KMP_UNNAMED_FILE = "unnamed dorado file";

struct FreeRuns {
    void operator()(fso_extent* runs) const { ::operator delete[](runs); }
};
using RunArray = std::unique_ptr<fso_extent[], FreeRuns>;

// Room for `count` records; a count whose bytes cannot be told in a size asks for more than there
// is, so that the allocation fails.
RunArray allocateExtents(int count) {
    const auto wanted = static_cast<std::size_t>(count);
    const bool overflows = wanted > SIZE_MAX / sizeof(fso_extent);
    void* room = ::operator new[](overflows ? SIZE_MAX : wanted * sizeof(fso_extent), std::nothrow);
    return RunArray(static_cast<fso_extent*>(room));
}

uint64_t roundedUp(uint64_t length, uint64_t unit) {
    const uint64_t excess = length % unit;
    return excess == 0 ? length : length + (unit - excess);
}

bool isSpecial(uint64_t mode) {
    switch (mode & S_IFMT) {
    case S_IFBLK:
    case S_IFIFO:
    case S_IFCHR:
    case S_IFLNK:
    case S_IFSOCK:
        return true;
    default:
        return false;
    }
}

void fillTime(km_time& time, const fso_time& from) {
    RvpLinuxCommon::linux_to_kmptime(&time, static_cast<unsigned long>(long{from.seconds}));
    time.fraction = from.fraction;
}

kmp_extfile_piece pieceOf(const fso_metadata_piece& from) {
    return {from.address, from.length, 1};
}

} // namespace

RvpFsoFile::RvpFsoFile(RvpFsoFileSystem* owner, unsigned long index)
    : RvpFsoObject(FSO_FILE_OBJECT, FSO_KMP_UNNAMED_FILE), fileSystem(owner),
      fileIndex(index), fileRecord{}, metadataText{}, fso(owner->fso) {}

RvpFsoFile::~RvpFsoFile() {
    if (fso == nullptr) {
        return;
    }
    if (fso->closeFile(fileIndex) != FSO_OK) {
        PLUGIN_LOG(2, "Failed to close file index, index = %lu\n", fileIndex);
    }
}

int RvpFsoFile::init(kmp_obj** object, int /*flags*/, int* openFlags) {
    *openFlags = 0;
    if (fso->openFile(fileIndex, &fileRecord, reinterpret_cast<uint32_t*>(openFlags)) != FSO_OK) {
        return KMP_ESYSTEM;
    }
    if (isSpecial(fileRecord.mode)) {
        *openFlags |= KMP_OPEN_SPECIAL;
    }
    *object = &obj;
    return KMP_OK;
}

int RvpFsoFile::getExtent(unsigned long offset, kmp_extent* extents, int capacity, int* count,
                          int* done, kmp_mapdomain_node* /*node*/) {
    const RunArray runs = allocateExtents(capacity);
    VERIFY_PTR(runs, KMP_EINVAL);
    const uint32_t status =
        fso->getExtents(fileIndex, offset, runs.get(), static_cast<uint32_t>(capacity),
                        reinterpret_cast<uint32_t*>(count));
    // The count comes first: a library error without any run ends here, not in its status.
    VERIFY_ORMA_BOOL(*count >= 1 && *count <= capacity, KMP_EINTERNAL);
    if (status != FSO_OK) {
        *done = 1;
        return hostCodeOf(status);
    }
    for (int i = 0; i < *count; ++i) {
        if (runs[static_cast<std::size_t>(i)].length == 0) {
            PLUGIN_LOG(0, "Unable to get the extent, length = 0, index = %lu, extentNum = %u\n",
                       fileIndex, static_cast<unsigned>(i));
        }
        fillExtent(extents[i], runs[static_cast<std::size_t>(i)]);
    }
    *done = 1;
    return KMP_OK;
}

void RvpFsoFile::fillExtent(kmp_extent& extent, const fso_extent& run) const {
    extent.volume = fileSystem->volumeId;
    extent.offset = run.offset;
    extent.length = roundedUp(run.length, fileSystem->roundingSize());
    extent.flags = run.flags;
}

int RvpFsoFile::getObjProp(kmp_obj_prop** property) {
    kmp_file file = {};
    statFile(&file);
    kmp_obj_prop filled = {};
    filled.kind = KMP_PROP_FILE;
    filled.size = file.size;
    *property = getObjPropFromList(filled);
    return KMP_OK;
}

int RvpFsoFile::statFile(kmp_file* file) {
    VERIFY_PTR(file, KMP_EINVAL);
    *file = {};
    file->mode = fileRecord.mode;
    file->linkCount = fileRecord.linkCount;
    file->type = static_cast<uint32_t>(linux_ftype(fileRecord.mode));
    file->owner = fileRecord.owner;
    if (file->type != KMP_FTYPE_DIRECTORY) {
        file->size = fileRecord.size;
    }
    file->blocks = fileRecord.blocks;
    file->device = fileRecord.device;
    fillTime(file->accessTime, fileRecord.accessTime);
    fillTime(file->modifyTime, fileRecord.modifyTime);
    fillTime(file->changeTime, fileRecord.changeTime);
    fillTime(file->createTime, fileRecord.createTime);
    file->index = fileRecord.index;
    return KMP_OK;
}

int RvpFsoFile::readDir(kmp_io_req* request, unsigned long* count) {
    VERIFY_PTR(request, KMP_EINVAL);
    VERIFY_PTR(count, KMP_EINVAL);
    VERIFY_LINUX_BOOL(linux_ftype(fileRecord.mode) == KMP_FTYPE_DIRECTORY);
    fso_dir_request listing = {request->buffer, request->bufferSize, request->position, 0};
    // The library counts in 32 bits, in the low half of the host's word.
    const uint32_t status = fso->readDir(fileIndex, &listing, reinterpret_cast<uint32_t*>(count));
    request->resultCount = listing.resultCount;
    if (status == FSO_OK) {
        return KMP_OK;
    }
    const int code = hostCodeOf(status);
    request->error = static_cast<uint32_t>(code);
    return code;
}

int RvpFsoFile::getFileMetadata(kmp_extfile* metadata) {
    fso_metadata record = {};
    if (const uint32_t status = fso->getMetadata(fileIndex, &record); status != FSO_OK) {
        return hostCodeOf(status);
    }
    VERIFY_PTR(metadata, KMP_EINVAL);
    // These three words in this order: readers of the text know it so.
    V_snprintf(metadataText, sizeof metadataText, "%10o:%10o:%10o:", fileRecord.modifyTime.fraction,
               fileRecord.accessTime.fraction, fileRecord.createTime.fraction);
    metadata->text = {reinterpret_cast<uint64_t>(metadataText), std::strlen(metadataText) + 1, 1};
    metadata->first = pieceOf(record.inode);
    metadata->second = pieceOf(record.attributeBlock);
    metadata->third = pieceOf(record.linkTarget);
    return KMP_OK;
}

int RvpFsoFile::objCtl(int command, void* argument) {
    const int result = command == KMP_OCGETEXTFILE
                           ? getFileMetadata(static_cast<kmp_extfile*>(argument))
                           : KMP_ENOTSUP;
    return plugin_log_result(result, SOURCE_FILE);
}

int RvpFsoFile::getNames(int /*which*/, kmp_name** /*names*/, int* /*count*/) {
    return plugin_log_result(KMP_ENOTSUP, SOURCE_FILE);
}
