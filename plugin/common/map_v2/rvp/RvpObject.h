// Objects of a provider that wraps those of another, the lower one.
//
// A host author derives from `RvpInterface` to say how lower objects are closed and iterated, fills
// its function table from the lower provider's entry points, and derives from `RvpObject` to say
// how an opened lower object is wrapped. All results are host codes: 0 is success, 4 stands for an
// operation that the lower provider lacks. A result other than 0 is logged on its way out, 4 at
// level 4 and the others at level 2.
//
// A null object, record or handle from a lower provider that reports success, and a factory that
// makes nothing, log "Exception: VERIFY_PTR\n" and throw OrmaError(3); the lower object or
// iteration then stays open, and out-arguments are untouched but for the handle of `iterateInit`,
// which holds the lower iteration.
//
// The order of fields and virtual operations is part of the binary interface.
#ifndef RVP_RVPOBJECT_H
#define RVP_RVPOBJECT_H

#include "kmp/kmp.h"

#include <cstddef>
#include <cstdint>

enum OrmaObjectType : std::uint32_t {
    ORMA_OBJECT_BY_ID = 1,
    ORMA_OBJECT_FILE = 2, // opened by index or met in an iteration
    ORMA_OBJECT_STREAM = 4,
    ORMA_OBJECT_ITERATOR = 32
};

// What a lower object's record (`kmp_obj::record`) begins with, as far as it is read here.
struct RvpLowerRecord {
    static constexpr std::uint32_t DIRECTORY = KMP_FTYPE_DIRECTORY;

    std::uint8_t reserved0[72];   //   0
    std::uint64_t index;          //  72: file index
    std::uint32_t type;           //  80: kmp_file_type
    std::uint8_t reserved84[556]; //  84
    std::uint32_t subRecordCount; // 640
    std::uint32_t reserved644;    // 644

    // 648: so many pointers follow.
    RvpLowerRecord** subRecords() { return reinterpret_cast<RvpLowerRecord**>(this + 1); }
};
static_assert(offsetof(RvpLowerRecord, index) == 72 && offsetof(RvpLowerRecord, type) == 80);
static_assert(offsetof(RvpLowerRecord, subRecordCount) == 640 && sizeof(RvpLowerRecord) == 648);

// A loaded provider library; an interface closes the handle, unless it is null, and deletes this.
struct RvpLibrary {
    void* handle;
};

// The lower provider's entry points, in their fixed order; each takes the lower provider's context
// first. A null entry means that the lower provider lacks the operation.
struct RvpFunctions {
    using Unused = void (*)();

    int (*checkConfigId)(void* context, kmp_obj* object, int* result);
    Unused unused1[3];
    int (*getConfigId)(void* context, kmp_obj* object, const kmp_configid* in, kmp_configid* out,
                       int* result);
    int (*getNames)(void* context, kmp_obj* object, int which, kmp_name** names, int* count);
    int (*getObjProp)(void* context, kmp_obj* object, kmp_obj_prop** properties);
    int (*getObjStats)(void* context, kmp_obj* object, kmp_stats* stats);
    int (*getStreams)(void* context, kmp_obj* object, kmp_name** streams, int* count);
    Unused unused9;
    int (*objCtl)(void* context, kmp_obj* object, int command, void* argument);
    int (*openId)(void* context, const struct km_objid* id, const char* name, kmp_obj** object,
                  int flags, int* openFlags, const void* extra);
    int (*openFileIndex)(void* context, kmp_obj* object, unsigned long index, kmp_obj** opened,
                         int flags, int* openFlags, const void* extra);
    int (*openStream)(void* context, kmp_obj* object, const char* stream, kmp_obj** opened,
                      int flags, int* openFlags, const void* extra);
    int (*readDir)(void* context, kmp_obj* object, kmp_io_req* request, unsigned long* position);
    int (*statFile)(void* context, kmp_obj* object, kmp_file* stat);
    int (*statFs)(void* context, kmp_obj* object, kmp_fs* stat);
};
static_assert(sizeof(RvpFunctions) == std::size_t{17} * 8);

// The way to a lower provider. Shared by all objects over it, which it must outlive.
class RvpInterface {
  public:
    RvpInterface();
    RvpInterface(const RvpInterface&) = delete;
    RvpInterface& operator=(const RvpInterface&) = delete;

    // Closes the library, deletes its holder and empties the function table.
    virtual ~RvpInterface();
    virtual int closeObject(kmp_obj* object) = 0;
    // Sets `*handle` to the lower provider's iteration; `file` and the integers are the caller's.
    virtual int startIteration(kmp_obj* object, kmp_file* file, int first, int second,
                               void** handle) = 0;
    // Opens the next object; any code ends the iteration.
    virtual int nextObject(void* handle, kmp_obj** object) = 0;
    virtual int closeIteration(void* handle) = 0;

    RvpLibrary* library; // owned, made by new; may be null
    void* context;       // the lower provider's own
    void* reserved[2];
    RvpFunctions functions;
};
static_assert(sizeof(RvpInterface) == 176);

class ObjectType {
  public:
    virtual ~ObjectType();
};

// Owns its id; the lower object is closed by `close` only, and whoever holds the object deletes it
// afterwards.
class RvpObject : public ObjectType {
  public:
    // `lower` may be null. The host's `kmp_obj` carries an id made from `name` and the lower
    // object's record.
    RvpObject(RvpInterface& provider, OrmaObjectType type, const char* name, kmp_obj* lowerObject);
    RvpObject(const RvpObject&) = delete;
    RvpObject& operator=(const RvpObject&) = delete;

    // Gives the id back, unless bit 0 of its flags keeps it.
    ~RvpObject() override;
    // A new object of the derived class over an opened lower object. The name is copied.
    virtual RvpObject* create(OrmaObjectType type, const char* name, kmp_obj* lowerObject) = 0;
    virtual int checkConfigId(int* result);
    virtual int close();
    virtual int getConfigId(const kmp_configid* in, kmp_configid* out, int* result);
    virtual int getNames(int which, kmp_name** names, int* count);
    virtual int getObjProp(kmp_obj_prop** properties);
    virtual int getObjStats(kmp_stats* stats);
    virtual int objCtl(int command, void* argument);
    // The opening operations wrap what they open; `*object` is null after a failure. `openFlags`
    // and `extra` are handed on. The new object has the lower object's name, after `prefix` (null
    // for none) when it is opened by id. `openFileIndex` logs neither 2058 nor 2072.
    virtual int openId(const struct km_objid* id, const char* name, kmp_obj** object, int flags,
                       int* openFlags, const void* extra, const char* prefix);
    virtual int openFileIndex(unsigned long index, kmp_obj** object, int flags, int* openFlags,
                              const void* extra);
    virtual int openStream(const char* stream, kmp_obj** object, int flags, int* openFlags,
                           const void* extra);
    virtual int readDir(kmp_io_req* request, unsigned long* position);
    virtual int statFile(kmp_file* stat);
    virtual int statFs(kmp_fs* stat);
    virtual int getStreams(kmp_name** streams, int* count);
    virtual struct km_objid* getObjId();
    virtual const char* getObjName();
    virtual kmp_obj* getObj();
    // Starts an iteration and sets `*handle` to a new iterator object (an RvpObject*), which the
    // caller closes with `closeIterator` and deletes; null after a failure.
    virtual int iterateInit(kmp_file* file, int first, int second, void** handle);
    // On an iterator object: opens and wraps the next file, its extents translated. When they
    // cannot be, the lower object is closed and `*object` null; when there is no next one,
    // `*object` is untouched. Logs neither 2058 nor 2072.
    virtual int iterate(kmp_obj** object);
    // 1 when no iteration is open. One that was closed without a failure is no longer open.
    virtual int closeIterator();
    // Turns the extents of a lower record into the derived provider's.
    virtual int translateExtents(RvpLowerRecord* record) = 0;

  protected:
    static constexpr std::uint32_t SIGNATURE = 0x4749534F; // bytes "OSIG"

    std::uint32_t signature;
    OrmaObjectType objectType;
    RvpInterface& interface;
    kmp_obj obj;    // what the host holds
    kmp_obj* lower; // not owned
    void* iterator; // the lower iteration, null when none is open

  private:
    __attribute__((visibility("hidden"))) int translateAll(RvpLowerRecord* record);
};
static_assert(sizeof(ObjectType) == 8 && sizeof(RvpObject) == 176);

#endif
