#include "Provider.h"

#include "ExitStatus.h"

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fmt/format.h>
#include <unistd.h>

namespace {

// The provider reads km_root as long as the process lives.
const std::string& rootDirectory(const std::string& given) {
    static std::string root;
    std::error_code ignored;
    root = given.empty() ? std::filesystem::read_symlink("/proc/self/exe", ignored)
                               .parent_path()
                               .parent_path()
                               .string()
                         : given;
    return root;
}

void requireFile(const std::string& path) {
    if (::access(path.c_str(), R_OK) != 0) {
        throw ToolError(ExitStatus::FAILED,
                        path + " is missing (--root names the folder that holds lib/)");
    }
}

template <typename Function>
void bind(void* library, const char* symbol, Function& function) {
    function = reinterpret_cast<Function>(::dlsym(library, symbol));
    if (function == nullptr) {
        throw ToolError(ExitStatus::FAILED, fmt::format("libdorado.so lacks {}", symbol));
    }
}

} // namespace

Provider::Provider(const std::string& root) {
    km_root = rootDirectory(root).c_str();
    const std::string path = std::string(km_root) + "/lib/libdorado.so";
    requireFile(path);
    requireFile(std::string(km_root) + "/lib/map/rvp/libfso.so");
    void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw ToolError(ExitStatus::FAILED, fmt::format("cannot be loaded: {}", ::dlerror()));
    }
    bindAll(library);
}

void Provider::bindAll(void* library) {
    bind(library, "rvp_map_init", init);
    bind(library, "rvp_map_fini", fini);
    bind(library, "rvp_map_claim_volume", claimVolume);
    bind(library, "rvp_map_open_id", openId);
    bind(library, "rvp_map_open_file_index", openFileIndex);
    bind(library, "rvp_map_close", close);
    bind(library, "rvp_map_get_extent", getExtent);
    bind(library, "rvp_map_objctl", objctl);
    bind(library, "rvp_map_readdir", readdir);
    bind(library, "rvp_map_stat_file", statFile);
    bind(library, "rvp_map_stat_fs", statFs);
    bind(library, "rvp_map_set_volume_read_callback", setVolumeReadCallback);
    bind(library, "rvp_map_set_logical_sector_size", setLogicalSectorSize);
    bind(library, "rvp_map_set_keep_alive_callback", setKeepAliveCallback);
    bind(library, "rvp_map_errmsg", errmsg);
}
