#include "RvpFsoObject.h"

#include "Error.h"

#include <cstring>

RvpFsoObject::RvpFsoObject(unsigned int type, const char* name)
    : signature{'X', 'F', 'S', 'O'}, objectType(type), obj{}, reserved{} {
    VERIFY_PTR(name, KMP_EINVAL);
    const int length = static_cast<int>(std::strlen(name) + 1);
    // Not given back by this object: the host counts ids by name.
    obj.id = km_objid(name, length, KM_OBJID_FSO);
    VERIFY_PTR(obj.id, KMP_EINVAL);
    obj.name = obj.id->name;
    obj.displayName = obj.id->name;
    obj.provider = this;
}

RvpFsoObject::~RvpFsoObject() = default;

int RvpFsoObject::checkConfigId(int* /*result*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::close() {
    return KMP_OK;
}

int RvpFsoObject::getConfigId(const kmp_configid* /*in*/, kmp_configid* /*out*/, int* /*result*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::getExtent(unsigned long /*offset*/, kmp_extent* /*extents*/, int /*capacity*/,
                            int* /*count*/, int* /*done*/, kmp_mapdomain_node* /*node*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::getObjProp(kmp_obj_prop** /*property*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::getObjStats(kmp_stats* /*stats*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::getSubObjLinkProp(kmp_obj_link_prop** /*property*/, int* /*count*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::objCtl(int /*command*/, void* /*argument*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::read(kmp_io_req* /*request*/, int /*flags*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::readDir(kmp_io_req* /*request*/, unsigned long* /*count*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::statFile(kmp_file* /*file*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::statFs(kmp_fs* /*fs*/) {
    return KMP_ENOTSUP;
}

int RvpFsoObject::write(kmp_io_req* /*request*/, int /*flags*/) {
    return KMP_ENOTSUP;
}

kmp_obj_prop* RvpFsoObject::getObjPropFromList(const kmp_obj_prop& property) {
    return propList.findOrAdd(property);
}

kmp_obj_link_prop* RvpFsoObject::getLinkPropFromList(const kmp_obj_link_prop& property) {
    return linkPropList.findOrAdd(property);
}
