#include "RvpObject.h"

#include "Error.h"
#include "LogHelper.h"

#include <cstring>
#include <dlfcn.h>
#include <string>

namespace {

constexpr std::uint8_t ID_KEPT = 0x1; // bit of km_objid::flags

constexpr int NO_ITERATION = 1;

// The entry's result, or 4 when the lower provider has none.
template <typename Entry, typename... Arguments>
int forward(Entry* entry, Arguments... arguments) {
    return entry != nullptr ? entry(arguments...) : KMP_ENOTSUP;
}

// Codes that callers expect while they walk a file system's files.
bool isUnusedFile(int code) {
    return code == KMP_ENOTALLOCATED || code == KMP_ERESERVEDINODE;
}

} // namespace

static_assert(offsetof(RvpFunctions, openId) == 88 && offsetof(RvpFunctions, statFs) == 128);

// The fields' places are part of the binary interface. The types are not of standard layout, yet
// the compilers at hand define offsetof for all but virtual bases.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(RvpInterface, library) == 8 && offsetof(RvpInterface, context) == 16);
static_assert(offsetof(RvpInterface, functions) == 40);

RvpInterface::RvpInterface() : library(nullptr), context(nullptr), reserved{}, functions{} {}

RvpInterface::~RvpInterface() {
    if (library != nullptr) {
        if (library->handle != nullptr) {
            dlclose(library->handle);
        }
        delete library;
    }
    // A plain assignment would be dropped as dead.
    explicit_bzero(&functions, sizeof functions);
}

ObjectType::~ObjectType() = default;

RvpObject::RvpObject(RvpInterface& provider, OrmaObjectType type, const char* name,
                     kmp_obj* lowerObject)
    : signature(SIGNATURE), objectType(type), interface(provider), obj{}, lower(lowerObject),
      iterator(nullptr) {
    VERIFY_PTR(name, KMP_EINVAL);
    obj.id = km_objid(name, static_cast<int>(std::strlen(name) + 1), KM_OBJID_PROVIDER);
    VERIFY_PTR(obj.id, KMP_EINVAL);
    obj.name = obj.id->name;
    obj.displayName = obj.id->name;
    obj.provider = this;
    if (lower != nullptr) {
        obj.record = lower->record;
    }
    static_assert(offsetof(RvpObject, signature) == 8 && offsetof(RvpObject, objectType) == 12);
    static_assert(offsetof(RvpObject, obj) == 24); // the interface fills the gap
    static_assert(offsetof(RvpObject, lower) == 160 && offsetof(RvpObject, iterator) == 168);
}
#pragma GCC diagnostic pop

RvpObject::~RvpObject() {
    if (obj.id != nullptr && (obj.id->flags & ID_KEPT) == 0) {
        km_free_objid(obj.id);
    }
}

struct km_objid* RvpObject::getObjId() {
    return obj.id;
}

const char* RvpObject::getObjName() {
    return obj.id->name;
}

kmp_obj* RvpObject::getObj() {
    return &obj;
}

int RvpObject::checkConfigId(int* result) {
    return plugin_log_result(
        forward(interface.functions.checkConfigId, interface.context, lower, result), SOURCE_FILE);
}

int RvpObject::getConfigId(const kmp_configid* in, kmp_configid* out, int* result) {
    return plugin_log_result(
        forward(interface.functions.getConfigId, interface.context, lower, in, out, result),
        SOURCE_FILE);
}

int RvpObject::getNames(int which, kmp_name** names, int* count) {
    return plugin_log_result(
        forward(interface.functions.getNames, interface.context, lower, which, names, count),
        SOURCE_FILE);
}

int RvpObject::getObjProp(kmp_obj_prop** properties) {
    return plugin_log_result(
        forward(interface.functions.getObjProp, interface.context, lower, properties), SOURCE_FILE);
}

int RvpObject::getObjStats(kmp_stats* stats) {
    return plugin_log_result(
        forward(interface.functions.getObjStats, interface.context, lower, stats), SOURCE_FILE);
}

int RvpObject::getStreams(kmp_name** streams, int* count) {
    return plugin_log_result(
        forward(interface.functions.getStreams, interface.context, lower, streams, count),
        SOURCE_FILE);
}

int RvpObject::objCtl(int command, void* argument) {
    return plugin_log_result(
        forward(interface.functions.objCtl, interface.context, lower, command, argument),
        SOURCE_FILE);
}

int RvpObject::readDir(kmp_io_req* request, unsigned long* position) {
    return plugin_log_result(
        forward(interface.functions.readDir, interface.context, lower, request, position),
        SOURCE_FILE);
}

int RvpObject::statFile(kmp_file* stat) {
    return plugin_log_result(forward(interface.functions.statFile, interface.context, lower, stat),
                             SOURCE_FILE);
}

int RvpObject::statFs(kmp_fs* stat) {
    return plugin_log_result(forward(interface.functions.statFs, interface.context, lower, stat),
                             SOURCE_FILE);
}

int RvpObject::close() {
    return plugin_log_result(interface.closeObject(lower), SOURCE_FILE);
}

int RvpObject::openId(const struct km_objid* id, const char* name, kmp_obj** object, int flags,
                      int* openFlags, const void* extra, const char* prefix) {
    kmp_obj* opened = nullptr;
    const int result = forward(interface.functions.openId, interface.context, id, name, &opened,
                               flags, openFlags, extra);
    if (result != 0) {
        *object = nullptr;
        return plugin_log_result(result, SOURCE_FILE);
    }
    VERIFY_PTR(opened, KMP_EINVAL);
    const std::string prefixed = std::string(prefix != nullptr ? prefix : "") + opened->id->name;
    RvpObject* wrapped = create(ORMA_OBJECT_BY_ID, prefixed.c_str(), opened);
    VERIFY_PTR(wrapped, KMP_EINVAL);
    *object = wrapped->getObj();
    return 0;
}

int RvpObject::openFileIndex(unsigned long index, kmp_obj** object, int flags, int* openFlags,
                             const void* extra) {
    kmp_obj* opened = nullptr;
    const int result = forward(interface.functions.openFileIndex, interface.context, lower, index,
                               &opened, flags, openFlags, extra);
    if (result != 0) {
        *object = nullptr;
        return isUnusedFile(result) ? result : plugin_log_result(result, SOURCE_FILE);
    }
    VERIFY_PTR(opened, KMP_EINVAL);
    RvpObject* wrapped = create(ORMA_OBJECT_FILE, opened->id->name, opened);
    VERIFY_PTR(wrapped, KMP_EINVAL);
    *object = wrapped->getObj();
    return 0;
}

int RvpObject::openStream(const char* stream, kmp_obj** object, int flags, int* openFlags,
                          const void* extra) {
    kmp_obj* opened = nullptr;
    const int result = forward(interface.functions.openStream, interface.context, lower, stream,
                               &opened, flags, openFlags, extra);
    if (result != 0) {
        *object = nullptr;
        return plugin_log_result(result, SOURCE_FILE);
    }
    VERIFY_PTR(opened, KMP_EINVAL);
    RvpObject* wrapped = create(ORMA_OBJECT_STREAM, opened->id->name, opened);
    VERIFY_PTR(wrapped, KMP_EINVAL);
    *object = wrapped->getObj();
    return 0;
}

int RvpObject::iterateInit(kmp_file* file, int first, int second, void** handle) {
    const int result = interface.startIteration(lower, file, first, second, handle);
    if (result != 0) {
        *handle = nullptr;
        return plugin_log_result(result, SOURCE_FILE);
    }
    VERIFY_PTR(*handle, KMP_EINVAL);
    VERIFY_PTR(lower, KMP_EINVAL);
    RvpObject* wrapped = create(ORMA_OBJECT_ITERATOR, lower->id->name, lower);
    VERIFY_PTR(wrapped, KMP_EINVAL);
    wrapped->iterator = *handle;
    *handle = wrapped;
    return 0;
}

int RvpObject::iterate(kmp_obj** object) {
    kmp_obj* next = nullptr;
    const int result = interface.nextObject(iterator, &next);
    if (result != 0) {
        return isUnusedFile(result) ? result : plugin_log_result(result, SOURCE_FILE);
    }
    VERIFY_PTR(next, KMP_EINVAL);
    VERIFY_PTR(next->record, KMP_EINVAL);
    auto* record = static_cast<RvpLowerRecord*>(next->record);
    if (const int failure = translateAll(record); failure != 0) {
        PLUGIN_LOG(0, "Failed to translate extents for index <%llu>\n",
                   static_cast<unsigned long long>(record->index));
        interface.closeObject(next);
        *object = nullptr;
        return isUnusedFile(failure) ? failure : plugin_log_result(failure, SOURCE_FILE);
    }
    RvpObject* wrapped = create(ORMA_OBJECT_FILE, next->id->name, next);
    VERIFY_PTR(wrapped, KMP_EINVAL);
    *object = wrapped->getObj();
    return 0;
}

// The first failure, or 0. A directory has no extents of its own but may have sub-records.
int RvpObject::translateAll(RvpLowerRecord* record) {
    if (record->type != RvpLowerRecord::DIRECTORY) {
        if (const int result = translateExtents(record); result != 0) {
            return result;
        }
    }
    for (std::uint32_t i = 0; i < record->subRecordCount; ++i) {
        if (const int result = translateExtents(record->subRecords()[i]); result != 0) {
            return result;
        }
    }
    return 0;
}

int RvpObject::closeIterator() {
    if (iterator == nullptr) {
        return plugin_log_result(NO_ITERATION, SOURCE_FILE);
    }
    const int result = interface.closeIteration(iterator);
    if (result == 0) {
        iterator = nullptr;
    }
    return plugin_log_result(result, SOURCE_FILE);
}
