#include "RvpFsoFileSystemMgr.h"

#include "Error.h"
#include "RvpFsoFile.h"
#include "RvpFsoFileSystem.h"

#include <dlfcn.h>
#include <memory>
#include <new>
#include <strings.h>

namespace {

constexpr const char* LIBRARY_NAME = "libfso";
constexpr int TRACE_LEVEL = 7;

// Counts the initialisation of the library in this process; never goes back.
int plugin_init = 0;

template <typename Function>
Function* findSymbol(void* library, const char* name) {
    return reinterpret_cast<Function*>(dlsym(library, name));
}

} // namespace

RvpFsoFileSystemMgr::RvpFsoFileSystemMgr()
    : logicalSectorSize(0), readCallback(nullptr), readContext(nullptr), optimizeCallback(nullptr),
      optimizeContext(nullptr), extentCallback(nullptr), extentContext(nullptr),
      keepAliveCallback(nullptr), libraryHandle(nullptr), libraryInfo(nullptr), installPath{} {}

RvpFsoFileSystemMgr::~RvpFsoFileSystemMgr() {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    if (libraryHandle != nullptr) {
        closeVolumes();
        finishLibrary();
        dlclose(libraryHandle);
    }
    volumes.clear();
}

void RvpFsoFileSystemMgr::closeVolumes() {
    auto* closeObject =
        findSymbol<decltype(closeFileSystemObject)>(libraryHandle, "closeFileSystemObject");
    if (closeObject == nullptr) {
        return;
    }
    for (auto& volume : volumes) {
        if (closeObject(&volume.second) != FSO_OK) {
            PLUGIN_LOG_AS("~RvpFsoFileSystemMgr", __LINE__, 3, "Failed to close FSO object");
        }
    }
}

void RvpFsoFileSystemMgr::finishLibrary() {
    if (libraryInfo == nullptr) {
        return;
    }
    auto* finish = findSymbol<decltype(libFini)>(libraryHandle, "libFini");
    if (finish == nullptr) {
        PLUGIN_LOG_AS("~RvpFsoFileSystemMgr", __LINE__, 2, "Failed to terminate FSO library");
        return;
    }
    finish(libraryInfo);
    libraryInfo = nullptr;
}

int RvpFsoFileSystemMgr::setVolumeReadCallback(volume_read_callback read, void* context) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    readCallback = read;
    readContext = context;
    return KMP_OK;
}

int RvpFsoFileSystemMgr::setVolumeOptimizeCallback(volume_optimize_callback optimize,
                                                   void* context) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    optimizeCallback = optimize;
    optimizeContext = context;
    return KMP_OK;
}

int RvpFsoFileSystemMgr::setVolumeExtentCallback(volume_extent_callback extent, void* context) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    extentCallback = extent;
    extentContext = context;
    return KMP_OK;
}

int RvpFsoFileSystemMgr::setLogicalSectorSize(unsigned int size) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    logicalSectorSize = size;
    PLUGIN_LOG(5, "Logical sector size: %d\n", static_cast<int>(size));
    return KMP_OK;
}

int RvpFsoFileSystemMgr::excludeUnallocated(RvpFsoFileSystem* /*fileSystem*/) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    return KMP_OK;
}

int RvpFsoFileSystemMgr::setKeepAliveCallback(keep_alive_callback keepAlive) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    keepAliveCallback = keepAlive;
    return KMP_OK;
}

bool RvpFsoFileSystemMgr::getOrmaInstallPath() {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    V_strlcpy(installPath, km_root, sizeof installPath);
    V_strlcat(installPath, "/lib/", sizeof installPath);
    return true;
}

void RvpFsoFileSystemMgr::resolveFsoPath(std::string& path, const char* libraryName) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    if (!getOrmaInstallPath()) {
        return;
    }
    path = std::string(installPath) + "map" + "/" + "rvp" + "/";
    if (libraryName != nullptr) {
        path += std::string(libraryName) + ".so";
    }
}

int RvpFsoFileSystemMgr::claim(const char* volumeName) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    std::string path;
    resolveFsoPath(path, LIBRARY_NAME);
    PLUGIN_LOG(3, "FSO Path: %s\n", path.c_str());
    // Each claim takes one more reference to the library; the destructor gives one back.
    libraryHandle = dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
    VERIFY_PTR(libraryHandle, KMP_EINVAL);
    if (plugin_init == 0) {
        resolveFsoPath(path, nullptr);
        auto* initialise = findSymbol<decltype(libInit)>(libraryHandle, "libInit");
        VERIFY_PTR(initialise, KMP_EINVAL);
        libraryInfo = initialise(path.c_str());
        VERIFY_PTR(libraryInfo, KMP_EINVAL);
        for (const fso_info* info = libraryInfo; info != nullptr; info = info->next) {
            PLUGIN_LOG(3, "FSO libInit info: name: %s, version: %s, build: %s\n", info->name,
                       info->version, info->build);
        }
        ++plugin_init;
    }
    auto* openObject =
        findSymbol<decltype(openFileSystemObject)>(libraryHandle, "openFileSystemObject");
    VERIFY_PTR(openObject, KMP_EINVAL);
    // The place in the list comes first: an object that is open must not be lost.
    decltype(volumes) claimed;
    claimed.emplace_back(volumeName, nullptr);
    IFileSystemObjectV1*& fso = claimed.front().second;
    const uint32_t status = openObject(&fso, logicalSectorSize, readCallback, readContext,
                                       FSOLogCallback, keepAliveCallback);
    int answer = KM_CLAIM_NONE;
    // An object that does not recognise the volume is left open: libraries count on being asked to
    // close claimed volumes only.
    if (status == FSO_OK && fso != nullptr && fso->recognise()) {
        volumes.splice(volumes.end(), claimed);
        answer = KM_CLAIM_SECONDARY;
    }
    plugin_report_claim(answer, volumeName);
    return answer;
}

const std::pair<std::string, IFileSystemObjectV1*>*
RvpFsoFileSystemMgr::findVolume(const char* name) const {
    for (const auto& volume : volumes) {
        if (strcasecmp(volume.first.c_str(), name) == 0) {
            return &volume;
        }
    }
    return nullptr;
}

int RvpFsoFileSystemMgr::claimId(const struct km_objid* id) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    if (findVolume(id->name) != nullptr) {
        PLUGIN_LOG(3, "KM_CLAIM_PRIMARY\n");
        return KM_CLAIM_PRIMARY;
    }
    PLUGIN_LOG(3, "KM_CLAIM_NONE\n");
    return KM_CLAIM_NONE;
}

int RvpFsoFileSystemMgr::openId(const struct km_objid* id, const char* /*name*/, kmp_obj** object,
                                int flags, int* error) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    VERIFY_PTR(id->name, KMP_EINVAL);
    PLUGIN_LOG(5, "Object Name: %s\n", id->name);
    if (claimId(id) != KM_CLAIM_PRIMARY) {
        *object = nullptr;
        return plugin_log_result(KMP_EINTERNAL, SOURCE_FILE);
    }
    const auto* volume = findVolume(id->name);
    VERIFY_PTR(volume, KMP_EINVAL);
    std::unique_ptr<RvpFsoFileSystem> fileSystem(new (std::nothrow)
                                                     RvpFsoFileSystem(volume->first));
    VERIFY_PTR(fileSystem, KMP_EINVAL);
    fileSystem->init(logicalSectorSize, volume->second);
    int result = KMP_EINVAL;
    if (fileSystem->initialised) {
        result = fileSystem->openFileSystem(object, flags, error);
    } else {
        PLUGIN_LOG(2, "Invalid FSO object\n");
    }
    if (result == KMP_OK) {
        fileSystem.release(); // the host's from here on
        return KMP_OK;
    }
    fileSystem.reset();
    *object = nullptr;
    return plugin_log_result(result, SOURCE_FILE);
}

void closeRvpFsoFile(RvpFsoFile* file) {
    const LogTrace trace(__func__, SOURCE_FILE, __LINE__, TRACE_LEVEL);
    file->close();
    delete file;
}

int FSOLogCallback(fs_log_level_t level, const char* text) {
    // The library's text is the format, as libraries have been written to expect.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    PLUGIN_LOG(level, text);
#pragma GCC diagnostic pop
    return 1;
}
