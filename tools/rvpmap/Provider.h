// The provider library, loaded at run time, and its entry points as one table.
//
// The host's root directory is the folder above the tool's own, so that a build folder and an
// installation both work; an explicit one wins. The library stays loaded until the process ends.
#ifndef RVPMAP_PROVIDER_H
#define RVPMAP_PROVIDER_H

#include "kmp/rvp_map.h"

#include <string>

class Provider {
  public:
    // Loads lib/libdorado.so below `root` (empty: beside the tool) and sets the host's root
    // directory. Throws ToolError.
    explicit Provider(const std::string& root);

    decltype(&rvp_map_init) init = nullptr;
    decltype(&rvp_map_fini) fini = nullptr;
    decltype(&rvp_map_claim_volume) claimVolume = nullptr;
    decltype(&rvp_map_open_id) openId = nullptr;
    decltype(&rvp_map_open_file_index) openFileIndex = nullptr;
    decltype(&rvp_map_close) close = nullptr;
    decltype(&rvp_map_get_extent) getExtent = nullptr;
    decltype(&rvp_map_objctl) objctl = nullptr;
    decltype(&rvp_map_readdir) readdir = nullptr;
    decltype(&rvp_map_stat_file) statFile = nullptr;
    decltype(&rvp_map_stat_fs) statFs = nullptr;
    decltype(&rvp_map_set_volume_read_callback) setVolumeReadCallback = nullptr;
    decltype(&rvp_map_set_logical_sector_size) setLogicalSectorSize = nullptr;
    decltype(&rvp_map_set_keep_alive_callback) setKeepAliveCallback = nullptr;
    decltype(&rvp_map_errmsg) errmsg = nullptr;

  private:
    void bindAll(void* library);
};

#endif
