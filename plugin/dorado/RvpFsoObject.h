// Base of the objects that the provider hands to the host: a file system or a file.
//
// It carries the signature by which a record that comes back is recognised, the host's object
// record, a default answer to every operation, and the property records that live as long as the
// object. The host owns an opened object until it closes it; the record lies inside the object.
//
// Operations return a host code, 0 for success.
#ifndef DORADO_RVPFSOOBJECT_H
#define DORADO_RVPFSOOBJECT_H

#include "SList.h"
#include "kmp/kmp.h"

#include <cstdint>
#include <cstring>

// Bits of the object type.
constexpr uint32_t FSO_FILE_SYSTEM_OBJECT = 0x1;
constexpr uint32_t FSO_FILE_OBJECT = 0x2;

class RvpFsoObject {
  public:
    // "XFSO" read as a 32-bit value.
    static constexpr uint32_t SIGNATURE = 0x4F534658;

    // Throws OrmaError 3 for a null name.
    RvpFsoObject(unsigned int type, const char* name);
    RvpFsoObject(const RvpFsoObject&) = delete;
    RvpFsoObject& operator=(const RvpFsoObject&) = delete;

    // The order of the slots is fixed. All but `close` answer KMP_ENOTSUP unless overridden.
    virtual ~RvpFsoObject();
    virtual int checkConfigId(int* result);
    virtual int close();
    virtual int getConfigId(const kmp_configid* in, kmp_configid* out, int* result);
    virtual int getExtent(unsigned long offset, kmp_extent* extents, int capacity, int* count,
                          int* done, kmp_mapdomain_node* node);
    virtual int getObjProp(kmp_obj_prop** property);
    virtual int getObjStats(kmp_stats* stats);
    virtual int getSubObjLinkProp(kmp_obj_link_prop** property, int* count);
    virtual int objCtl(int command, void* argument);
    virtual int read(kmp_io_req* request, int flags);
    virtual int readDir(kmp_io_req* request, unsigned long* count);
    virtual int statFile(kmp_file* file);
    virtual int statFs(kmp_fs* fs);
    virtual int write(kmp_io_req* request, int flags);

    // Also asked of memory that is no object: it tells.
    __attribute__((no_sanitize("vptr"))) uint32_t getSignature() const {
        uint32_t value = 0;
        std::memcpy(&value, signature, sizeof value);
        return value;
    }
    uint32_t getObjectType() const { return objectType; }
    // The kept copy of a record, the same address for equal records; null when memory is short.
    kmp_obj_prop* getObjPropFromList(const kmp_obj_prop& property);
    kmp_obj_link_prop* getLinkPropFromList(const kmp_obj_link_prop& property);

    char signature[4];
    uint32_t objectType;
    kmp_obj obj;
    uint64_t reserved[2];
    SList<kmp_obj_prop> propList;
    SList<kmp_obj_link_prop> linkPropList;
};
static_assert(sizeof(RvpFsoObject) == 232);

#endif
