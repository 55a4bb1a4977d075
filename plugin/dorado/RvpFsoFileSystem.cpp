#include "RvpFsoFileSystem.h"

#include "Error.h"
#include "RvpFsoFile.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr uint64_t MINIMUM_PREFERRED_BLOCK_SIZE = 32768;
constexpr uint64_t FILE_COUNT_UNIT = 64;
constexpr const char* NAME_SPACE = "dorado";
constexpr uint32_t TRAVERSE_TYPE = 1;
constexpr uint32_t TRAVERSE_ATTRIBUTE = 1;

uint64_t roundedToFileCountUnit(uint64_t count) {
    return (count + FILE_COUNT_UNIT - 1) / FILE_COUNT_UNIT * FILE_COUNT_UNIT;
}

// The fields' places are part of the binary interface. The type is not of standard layout, yet the
// compilers at hand define offsetof for all but virtual bases.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
using Layout = RvpFsoFileSystem;
static_assert(offsetof(Layout, signature) == 8 && offsetof(Layout, objectType) == 12);
static_assert(offsetof(Layout, obj) == 16 && offsetof(Layout, propList) == 168);
static_assert(offsetof(Layout, linkPropList) == 200 && offsetof(Layout, volumeId) == 232);
static_assert(offsetof(Layout, volumeName) == 240 && offsetof(Layout, openFlags) == 272);
static_assert(offsetof(Layout, fsRecord) == 280 && offsetof(Layout, initialised) == 400);
static_assert(offsetof(Layout, fso) == 408 && offsetof(Layout, sectorSize) == 416);
#pragma GCC diagnostic pop

} // namespace

RvpFsoFileSystem::RvpFsoFileSystem(const std::string& name)
    : RvpFsoObject(FSO_FILE_SYSTEM_OBJECT, name.c_str()), volumeId(nullptr), volumeName(name),
      openFlags(0), fsRecord{}, initialised(false), fso(nullptr), sectorSize(0) {
    if (volumeName.empty()) {
        PLUGIN_LOG(3, "No volume name specified\n");
        return;
    }
    PLUGIN_LOG(3, "Volume name: %s\n", volumeName.c_str());
    volumeId = km_objid(volumeName.c_str(), static_cast<int>(std::strlen(volumeName.c_str()) + 1),
                        KM_OBJID_FSO);
}

RvpFsoFileSystem::~RvpFsoFileSystem() {
    km_free_objid(volumeId);
}

int RvpFsoFileSystem::init(unsigned long logicalSectorSize, IFileSystemObjectV1* library) {
    VERIFY_PTR(library, KMP_EINVAL);
    fso = library;
    sectorSize = logicalSectorSize;
    if (initialised) {
        PLUGIN_LOG(2, "FS object is already initialized\n");
        return KMP_OK;
    }
    if (fso->statFs(&fsRecord) == FSO_OK && fsRecord.fileCount != 0) {
        initialised = true;
        return KMP_OK;
    }
    PLUGIN_LOG(0, "Failed to stat filesystem\n");
    return KMP_ESYSTEM;
}

int RvpFsoFileSystem::openFileSystem(kmp_obj** object, int flags, int* hostFlags) {
    openFlags = flags;
    *hostFlags = KMP_OPEN_SPECIAL;
    *object = &obj;
    return KMP_OK;
}

int RvpFsoFileSystem::openFileIndex(unsigned long index, kmp_obj** object, int flags,
                                    int* hostFlags) {
    if (!isReadable() || index == FSO_NO_INDEX) {
        return plugin_log_result(KMP_ENOTSUP, SOURCE_FILE);
    }
    std::unique_ptr<RvpFsoFile> file;
    int result = KMP_OK;
    try {
        file.reset(new (std::nothrow) RvpFsoFile(this, index));
        VERIFY_PTR(file, KMP_EINVAL);
        result = file->init(object, flags, hostFlags);
    } catch (const Error& error) {
        error.log(KMP_SEVERITY_WARNING);
        result = error.m_code;
    }
    if (result == KMP_OK) {
        (*object)->provider = static_cast<RvpFsoObject*>(file.release());
        return KMP_OK;
    }
    file.reset();
    *object = nullptr;
    if (result == KMP_ENOTALLOCATED || result == KMP_ERESERVEDINODE) {
        return result;
    }
    return plugin_log_result(result, SOURCE_FILE);
}

int RvpFsoFileSystem::statFs(kmp_fs* fs) {
    if (!isReadable()) {
        PLUGIN_LOG(0, "Option Not supported\n");
        return plugin_log_result(KMP_ENOTSUP, SOURCE_FILE);
    }
    *fs = {};
    fs->type = fsRecord.type;
    fs->state = fsRecord.state;
    // Hosts count on success with just these two fields from an object without a record.
    if (!initialised) {
        PLUGIN_LOG(2, "FS object not valid\n");
        return KMP_OK;
    }
    fs->preferredBlockSize = std::max(fsRecord.blockSize, MINIMUM_PREFERRED_BLOCK_SIZE);
    fs->blockSize = fsRecord.blockSize;
    fs->usedBlocks = fsRecord.usedBlocks;
    fs->blockCount = fsRecord.blockCount;
    fs->freeBlocks = fsRecord.freeBlocks;
    fs->freeFiles = fsRecord.freeFiles;
    fs->fileCount = roundedToFileCountUnit(fsRecord.fileCount);
    std::memcpy(&fs->volumeId, fsRecord.uuid, sizeof fs->volumeId);
    V_strlcpy(fs->nameSpace, NAME_SPACE, sizeof fs->nameSpace);
    fs->maxNameLength = fsRecord.maxNameLength;
    return KMP_OK;
}

int RvpFsoFileSystem::getObjStats(kmp_stats* stats) {
    *stats = {};
    return KMP_OK;
}

int RvpFsoFileSystem::getObjProp(kmp_obj_prop** property) {
    if (!isReadable()) {
        return plugin_log_result(KMP_ENOTSUP, SOURCE_FILE);
    }
    kmp_obj_prop filled = {};
    filled.kind = KMP_PROP_FILE_SYSTEM;
    filled.blockSize = fsRecord.blockSize;
    filled.size = fsRecord.blockSize * fsRecord.blockCount;
    filled.value104 = 1;
    filled.value112 = 1;
    *property = getObjPropFromList(filled);
    return KMP_OK;
}

int RvpFsoFileSystem::objCtl(int command, void* argument) {
    const int result = isReadable() ? control(command, argument) : int{KMP_ENOTSUP};
    return plugin_log_result(result, SOURCE_FILE);
}

int RvpFsoFileSystem::control(int command, void* argument) {
    switch (command) {
    case KMP_OCGETEXTFS:
    case KMP_OCSETEXTFS:
        PLUGIN_LOG_AS("objCtl", __LINE__, 0,
                      "KMP_OCGETEXTFS/KMP_OCSETEXTFS Operation not supported\n");
        return KMP_ENOTSUP;
    case KMP_OCVOLUMENAME:
        return getVolumeName(argument);
    case KMP_OCVOLUMEUUID:
        return getVolumeUuid(argument);
    case KMP_OCTRAVERSETYPE:
        return getTraverseType(argument);
    case KMP_OCROOTINDEX:
        return getRootIndex(argument);
    case KMP_OCTRAVERSEATTRIBUTE:
        return getTraverseAttribute(argument);
    default:
        PLUGIN_LOG_AS("objCtl", __LINE__, 0, "Unsupported option. cmd = %d \n", command);
        return KMP_EINVAL;
    }
}

int RvpFsoFileSystem::getVolumeName(void* argument) {
    if (!initialised) {
        return plugin_log_result(KMP_ESYSTEM, SOURCE_FILE);
    }
    VERIFY_PTR(argument, KMP_EINVAL);
    *static_cast<char**>(argument) = fsRecord.volumeName;
    return KMP_OK;
}

int RvpFsoFileSystem::getVolumeUuid(void* argument) {
    if (!initialised) {
        return plugin_log_result(KMP_ESYSTEM, SOURCE_FILE);
    }
    VERIFY_PTR(argument, KMP_EINVAL);
    *static_cast<uint8_t**>(argument) = fsRecord.uuid;
    return KMP_OK;
}

int RvpFsoFileSystem::getTraverseType(void* argument) {
    VERIFY_PTR(argument, KMP_EINVAL);
    *static_cast<uint32_t*>(argument) = TRAVERSE_TYPE;
    return KMP_OK;
}

int RvpFsoFileSystem::getTraverseAttribute(void* argument) {
    VERIFY_PTR(argument, KMP_EINVAL);
    *static_cast<uint32_t*>(argument) = TRAVERSE_ATTRIBUTE;
    return KMP_OK;
}

int RvpFsoFileSystem::getRootIndex(void* argument) {
    VERIFY_PTR(argument, KMP_EINVAL);
    uint64_t index = 0;
    // A library that cannot tell leaves the zero.
    fso->rootIndex(&index);
    *static_cast<uint64_t*>(argument) = index;
    return KMP_OK;
}
