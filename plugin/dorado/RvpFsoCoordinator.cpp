#include "RvpFsoCoordinator.h"

#include "Error.h"
#include "RvpFsoFile.h"
#include "RvpFsoFileSystem.h"

#include <cstdint>
#include <cwchar>
#include <memory>

namespace {

constexpr int API_VERSION = 2;
constexpr int OPEN_ACCESS_MASK = KMP_OPEN_READ | KMP_OPEN_WRITE;
constexpr unsigned SMALL_SECTOR = 512;
constexpr unsigned LARGE_SECTOR = 4096;
constexpr uint32_t ANY_OBJECT = FSO_FILE_SYSTEM_OBJECT | FSO_FILE_OBJECT;

// The name of a provider object's id; may be null.
const char* nameOf(const RvpFsoObject* target) {
    return target->obj.id != nullptr ? target->obj.id->name : nullptr;
}

// The checks of one host call. They record the host call's name and their own line.
class Checks {
  public:
    explicit Checks(const char* function) : m_function(function) {}

    void require(bool condition, int code = KMP_EINVAL, int line = __builtin_LINE()) const {
        if (!condition) {
            raiseOrmaError(VERIFY_ORMA_BOOL_TEXT, code, SOURCE_FILE, line, m_function);
        }
    }

    void requireReceived(bool condition, int line = __builtin_LINE()) const {
        if (!condition) {
            raiseOrmaError(VERIFY_ORMA_TEXT, KMP_EINVAL, SOURCE_FILE, line, m_function);
        }
    }

    void requirePointer(const void* pointer, int line = __builtin_LINE()) const {
        if (pointer == nullptr) {
            raiseOrmaError(VERIFY_PTR_TEXT, KMP_EINVAL, SOURCE_FILE, line, m_function);
        }
    }

    void requireObject(const kmp_obj* object, int line = __builtin_LINE()) const {
        require(object != nullptr, KMP_EINVAL, line);
        require(object->provider != nullptr, KMP_EINVAL, line);
    }

    // The provider object behind a record that passed requireObject, of a kind in `mask`. What the
    // record points to may be anything: the signature tells, and a sanitizer must let it be read.
    __attribute__((no_sanitize("vptr"))) RvpFsoObject* owner(const kmp_obj* object, uint32_t mask,
                                                             int line = __builtin_LINE()) const {
        auto* target = static_cast<RvpFsoObject*>(object->provider);
        requireReceived(target->getSignature() == RvpFsoObject::SIGNATURE, line);
        requireReceived((target->getObjectType() & mask) != 0, line);
        return target;
    }

    // The same, its name logged.
    RvpFsoObject* namedOwner(const kmp_obj* object, uint32_t mask,
                             int line = __builtin_LINE()) const {
        RvpFsoObject* target = owner(object, mask, line);
        logName(target, line);
        return target;
    }

    void logName(const RvpFsoObject* target, int line = __builtin_LINE()) const {
        if (const char* name = nameOf(target)) {
            PLUGIN_LOG_AS(m_function, line, 7, "Object: %s\n", name);
        }
    }

    const char* function() const { return m_function; }

  private:
    const char* m_function;
};

RvpFsoFile* asFile(RvpFsoObject* object) {
    return static_cast<RvpFsoFile*>(object);
}

RvpFsoFileSystem* asFileSystem(RvpFsoObject* object) {
    return static_cast<RvpFsoFileSystem*>(object);
}

// Tells the host's handler, which logs the error, and logs it once more; hosts know both lines.
int reported(const Error& error) {
    error.callback(KMP_SEVERITY_WARNING, true);
    error.log(KMP_SEVERITY_WARNING);
    return error.m_code;
}

} // namespace

RvpFsoCoordinator::RvpFsoCoordinator(RvpFsoFileSystemMgr* mgr)
    : m_isInitialized(false), m_pFsMgr(mgr) {
    VERIFY_PTR(mgr, KMP_EINVAL);
}

RvpFsoCoordinator::~RvpFsoCoordinator() {
    delete m_pFsMgr;
    m_pFsMgr = nullptr;
    m_errorList.clear();
}

int RvpFsoCoordinator::rvpMapInit(kmp_ehandler* handler, int* apiVersion) {
    if (m_isInitialized) {
        return KMP_OK;
    }
    PLUGIN_LOG(3, "First Time Initialized\n");
    Error::s_pHandler = handler;
    *apiVersion = API_VERSION;
    m_isInitialized = true;
    return KMP_OK;
}

void RvpFsoCoordinator::rvpMapFini() {
    Error::s_pHandler = nullptr;
    m_isInitialized = false;
}

template <typename Operation>
int RvpFsoCoordinator::guarded(CallSite site, Operation operation) {
    int result = KMP_OK;
    try {
        const Checks checks(site.function);
        checks.require(m_isInitialized, KMP_ENOTSTARTED, site.line);
        result = operation(checks);
    } catch (Error& error) {
        result = reported(error);
    }
    return plugin_log_result(result, SOURCE_FILE, site.function, site.line);
}

// A claim answers with a km_claim: no result line, and KM_CLAIM_NONE after an error, whose code
// goes to `caught`.
template <typename Operation>
int RvpFsoCoordinator::guardedClaim(CallSite site, int& caught, Operation operation) {
    try {
        const Checks checks(site.function);
        checks.require(m_isInitialized, KMP_ENOTSTARTED, site.line);
        return operation(checks);
    } catch (Error& error) {
        caught = reported(error);
    }
    return KM_CLAIM_NONE;
}

int RvpFsoCoordinator::rvpMapClaimId(const struct km_objid* id) {
    int caught = KMP_OK;
    const int answer = guardedClaim(here(), caught, [&](const Checks& checks) {
        checks.require(id != nullptr);
        checks.require(id->name != nullptr);
        PLUGIN_LOG_AS(checks.function(), __LINE__, 7, "Object Name:%s\n", id->name);
        return m_pFsMgr->claimId(id);
    });
    if (caught != KMP_OK && id != nullptr && id->name != nullptr) {
        PLUGIN_LOG(3, "Reject Claim for Object Name:%s \n", id->name);
    }
    return answer;
}

int RvpFsoCoordinator::rvpMapClaimVolume(const char* volumeName) {
    int caught = KMP_OK;
    return guardedClaim(here(), caught, [&](const Checks& checks) {
        checks.require(volumeName != nullptr);
        return m_pFsMgr->claim(volumeName);
    });
}

int RvpFsoCoordinator::rvpMapOpenId(const struct km_objid* id, const char* name, kmp_obj** object,
                                    int flags, int* error, const void* /*extra*/) {
    return guarded(here(), [&](const Checks& checks) {
        checks.require(id != nullptr);
        checks.require(object != nullptr);
        checks.require(error != nullptr);
        checks.require((flags & OPEN_ACCESS_MASK) != 0);
        return m_pFsMgr->openId(id, name, object, flags, error);
    });
}

int RvpFsoCoordinator::rvpMapOpenFileIndex(kmp_obj* fileSystem, unsigned long index,
                                           kmp_obj** object, int flags, int* error,
                                           const void* /*extra*/) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(fileSystem);
        checks.require(object != nullptr);
        checks.require(error != nullptr);
        checks.require((flags & OPEN_ACCESS_MASK) != 0);
        RvpFsoObject* target = checks.owner(fileSystem, FSO_FILE_SYSTEM_OBJECT);
        if (const char* name = nameOf(target)) {
            PLUGIN_LOG_AS(checks.function(), __LINE__, 5, "XFS Object Name: %s\n", name);
        }
        return asFileSystem(target)->openFileIndex(index, object, flags, error);
    });
}

int RvpFsoCoordinator::rvpMapClose(kmp_obj* object) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        RvpFsoObject* target = checks.namedOwner(object, ANY_OBJECT);
        const int result = target->close();
        object->provider = nullptr;
        delete target;
        return result;
    });
}

int RvpFsoCoordinator::rvpMapCheckConfigId(kmp_obj* object, int* result) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        checks.require(result != nullptr);
        RvpFsoObject* target = checks.owner(object, ANY_OBJECT);
        if ((target->getObjectType() & FSO_FILE_OBJECT) == 0) {
            return int{KMP_EINVAL};
        }
        checks.logName(target);
        return target->checkConfigId(result);
    });
}

int RvpFsoCoordinator::rvpMapGetConfigId(kmp_obj* object, const kmp_configid* in, kmp_configid* out,
                                         int* result) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        checks.require(in != nullptr);
        checks.require(out != nullptr);
        checks.require(result != nullptr);
        return checks.namedOwner(object, FSO_FILE_OBJECT)->getConfigId(in, out, result);
    });
}

int RvpFsoCoordinator::rvpMapGetExtent(kmp_obj* object, unsigned long offset, kmp_extent* extents,
                                       int count, int* returned, int* flags,
                                       kmp_mapdomain_node* node) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        checks.require(extents != nullptr);
        checks.require(returned != nullptr);
        checks.require(flags != nullptr);
        checks.require(node != nullptr);
        return checks.namedOwner(object, FSO_FILE_OBJECT)
            ->getExtent(offset, extents, count, returned, flags, node);
    });
}

int RvpFsoCoordinator::rvpMapGetNames(kmp_obj* object, int which, kmp_name** names, int* count) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        checks.require(names != nullptr);
        checks.require(count != nullptr);
        return asFile(checks.namedOwner(object, FSO_FILE_OBJECT))->getNames(which, names, count);
    });
}

int RvpFsoCoordinator::rvpMapGetObjProp(kmp_obj* object, kmp_obj_prop** properties) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        checks.require(properties != nullptr);
        return checks.namedOwner(object, ANY_OBJECT)->getObjProp(properties);
    });
}

int RvpFsoCoordinator::rvpMapGetObjStats(kmp_obj* object, kmp_stats* stats) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        checks.require(stats != nullptr);
        return checks.namedOwner(object, ANY_OBJECT)->getObjStats(stats);
    });
}

int RvpFsoCoordinator::rvpMapObjCtl(kmp_obj* object, int command, void* argument) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        RvpFsoObject* target = checks.owner(object, ANY_OBJECT);
        if (const char* name = nameOf(target)) {
            PLUGIN_LOG_AS(checks.function(), __LINE__, 7, "Object: %s cmd:%d\n", name, command);
        }
        return target->objCtl(command, argument);
    });
}

int RvpFsoCoordinator::rvpMapReadDir(kmp_obj* object, kmp_io_req* request,
                                     unsigned long* position) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        checks.require(request != nullptr);
        checks.require(position != nullptr);
        return checks.namedOwner(object, FSO_FILE_OBJECT)->readDir(request, position);
    });
}

int RvpFsoCoordinator::rvpMapStatFile(kmp_obj* object, kmp_file* stat) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(object);
        checks.require(stat != nullptr);
        return checks.namedOwner(object, FSO_FILE_OBJECT)->statFile(stat);
    });
}

int RvpFsoCoordinator::rvpMapStatFs(kmp_obj* fileSystem, kmp_fs* stat) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(fileSystem);
        checks.require(stat != nullptr);
        checks.requirePointer(fileSystem->provider);
        RvpFsoObject* target = checks.owner(fileSystem, FSO_FILE_SYSTEM_OBJECT);
        if (nameOf(target) != nullptr) {
            // The name is no wide string: hosts pad it so that reading it as one stays inside, and
            // whoever reads these logs knows the line as it comes out.
            PLUGIN_LOG_AS(checks.function(), __LINE__, 5, "FS Name:%ls\n",
                          reinterpret_cast<const wchar_t*>(fileSystem->name));
        }
        checks.logName(target);
        return target->statFs(stat);
    });
}

int RvpFsoCoordinator::rvpMapFsExcludeUnallocated(kmp_obj* fileSystem) {
    return guarded(here(), [&](const Checks& checks) {
        checks.requireObject(fileSystem);
        RvpFsoObject* target = checks.owner(fileSystem, FSO_FILE_SYSTEM_OBJECT);
        return m_pFsMgr->excludeUnallocated(asFileSystem(target));
    });
}

int RvpFsoCoordinator::rvpMapSetVolumeReadCallback(volume_read_callback read, void* context) {
    return guarded(here(), [&](const Checks& checks) {
        checks.require(read != nullptr);
        return m_pFsMgr->setVolumeReadCallback(read, context);
    });
}

int RvpFsoCoordinator::rvpMapSetVolumeOptimizeCallback(volume_optimize_callback optimize,
                                                       void* context) {
    return guarded(here(), [&](const Checks& checks) {
        checks.require(optimize != nullptr);
        return m_pFsMgr->setVolumeOptimizeCallback(optimize, context);
    });
}

int RvpFsoCoordinator::rvpMapSetVolumeExtentCallback(volume_extent_callback extent, void* context) {
    return guarded(here(), [&](const Checks& checks) {
        checks.require(extent != nullptr);
        return m_pFsMgr->setVolumeExtentCallback(extent, context);
    });
}

int RvpFsoCoordinator::rvpMapSetLogicalSectorSize(unsigned int sectorSize) {
    return guarded(here(), [&](const Checks& checks) {
        checks.require(sectorSize == SMALL_SECTOR || sectorSize == LARGE_SECTOR);
        return m_pFsMgr->setLogicalSectorSize(sectorSize);
    });
}

int RvpFsoCoordinator::rvpMapSetKeepAliveCallback(keep_alive_callback keepAlive) {
    return guarded(here(), [&](const Checks& checks) {
        checks.require(keepAlive != nullptr);
        return m_pFsMgr->setKeepAliveCallback(keepAlive);
    });
}

int RvpFsoCoordinator::rvpMapErrMsg(int code, char** text) {
    return guarded(here(), [&](const Checks& checks) {
        checks.require(text != nullptr);
        *text = const_cast<char*>(errorOf(code, checks.function())->getEnglishText());
        return int{KMP_OK};
    });
}

// The kept error of a code, made at the first request.
const OrmaError* RvpFsoCoordinator::errorOf(int code, const char* function) {
    for (const ORMA_ERROR& known : m_errorList) {
        if (known.code == code) {
            return known.error;
        }
    }
    auto error = std::make_unique<OrmaError>(code, SOURCE_FILE, __LINE__, function);
    m_errorList.push_back({code, error.get()});
    return error.release();
}
