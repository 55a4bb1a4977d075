/* The provider's entry points, as a C++ host calls them (with C linkage; the callbacks take
 * references).
 *
 * `rvp_map_init` makes an instance; every other call takes it first. One instance is used by one
 * thread at a time. Results are host codes (0 = success) unless a comment says otherwise; a null or
 * foreign instance gives 7. On a failure the error handler given to `rvp_map_init` hears the text
 * of a raised error before the call returns; what the out-arguments hold after a failure means
 * nothing but where a comment says so. C++ exceptions other than the provider's own errors
 * (allocation failures of the standard library) pass through.
 */
#ifndef KMP_RVP_MAP_H
#define KMP_RVP_MAP_H

#include "kmp/kmp.h"

#ifdef __cplusplus
extern "C" {

struct RvpInstance;

/* Makes an instance. `handler` (may be null, must outlive the instance) is shared by the whole
 * process: the last one given counts. Writes 2 to `apiVersion`. The other pointers must not be
 * null. */
int rvp_map_init(RvpInstance** instance, kmp_ehandler* handler, int* apiVersion);
/* Releases the instance, its claimed volumes and the library, and takes the process's error handler
 * away. Close every object first. */
void rvp_map_fini(RvpInstance* instance);

/* Claim of a volume by id: KM_CLAIM_PRIMARY when its name was claimed before, in any case. */
int rvp_map_claim_id(RvpInstance* instance, const struct km_objid* id);
/* Probes the volume that the read callback and its context name at this moment:
 * KM_CLAIM_SECONDARY when a file system was recognised, else KM_CLAIM_NONE. The callback's context
 * must stay valid until the instance ends. */
int rvp_map_claim_volume(RvpInstance* instance, const char* volumeName);

/* Opens a claimed volume. `flags` holds KMP_OPEN_READ or KMP_OPEN_WRITE; `*object` is null after a
 * failure of the open itself. `name` and `extra` are not used. */
int rvp_map_open_id(RvpInstance* instance, const struct km_objid* id, const char* name,
                    kmp_obj** object, int flags, int* error, const void* extra);
/* Opens a file of an opened file system. KMP_OPEN_SPECIAL in `*error` marks links and devices. */
int rvp_map_open_file_index(RvpInstance* instance, kmp_obj* fileSystem, unsigned long index,
                            kmp_obj** object, int flags, int* error, const void* extra);
/* Closes an object of either kind; the record is gone afterwards, whatever the result. Close the
 * files of a file system before it. */
int rvp_map_close(RvpInstance* instance, kmp_obj* object);

/* Of files, which have no configuration (4); on a file system it gives 3. */
int rvp_map_check_configid(RvpInstance* instance, kmp_obj* object, int* result);
/* Not supported (4). */
int rvp_map_get_configid(RvpInstance* instance, kmp_obj* object, const kmp_configid* in,
                         kmp_configid* out, int* result);
/* Up to `count` runs of a file from byte `offset` on; `*returned` counts them, `*done` is set to 1.
 * Asking where the file has no run is an error (code 1): stop at the record flagged as the last.
 * `node` is not looked at but must not be null. */
int rvp_map_get_extent(RvpInstance* instance, kmp_obj* object, unsigned long offset,
                       kmp_extent* extents, int count, int* returned, int* done,
                       kmp_mapdomain_node* node);
/* Of files only; names are not supported (4). */
int rvp_map_get_names(RvpInstance* instance, kmp_obj* object, int which, kmp_name** names,
                      int* count);
/* `*properties` points to a record that lives until the object is closed. */
int rvp_map_get_obj_prop(RvpInstance* instance, kmp_obj* object, kmp_obj_prop** properties);
/* Zeroes the record: no statistics are kept. */
int rvp_map_get_obj_stats(RvpInstance* instance, kmp_obj* object, kmp_stats* stats);
/* `command` is one of kmp_objctl. */
int rvp_map_objctl(RvpInstance* instance, kmp_obj* object, int command, void* argument);
/* Fills the request's buffer with directory entries (fso_dir_entry). The library counts them in the
 * low 32 bits of `*position`: set it to 0 before. */
int rvp_map_readdir(RvpInstance* instance, kmp_obj* object, kmp_io_req* request,
                    unsigned long* position);
/* Attributes of a file; the size of a directory is 0. */
int rvp_map_stat_file(RvpInstance* instance, kmp_obj* object, kmp_file* stat);
/* Statistics of a file system, as they were when it was opened. */
int rvp_map_stat_fs(RvpInstance* instance, kmp_obj* fileSystem, kmp_fs* stat);
/* Accepted and without effect: unallocated space is never excluded. */
int rvp_map_fs_exclude_unallocated(RvpInstance* instance, kmp_obj* fileSystem);

/* Callbacks for the following claims. The read callback fills `length` bytes from byte `offset` of
 * the volume and returns false on any failure, a read past the end included. */
int rvp_map_set_volume_read_callback(RvpInstance* instance,
                                     bool (*read)(void* context, unsigned long offset,
                                                  unsigned long length, char* buffer),
                                     void* context);
/* Kept; nothing calls it. */
int rvp_map_set_volume_optimize_callback(RvpInstance* instance,
                                         bool (*optimize)(void*, unsigned long, unsigned long,
                                                          bool),
                                         void* context);
/* Kept, too. */
int rvp_map_set_volume_extent_callback(RvpInstance* instance,
                                       bool (*extent)(void*, unsigned long, unsigned long,
                                                      unsigned long&, bool&),
                                       void* context);
/* 512 or 4096; extent lengths are rounded up to it. To be set before the first claim. */
int rvp_map_set_logical_sector_size(RvpInstance* instance, unsigned int sectorSize);
/* Called by the library during long work. */
int rvp_map_set_keep_alive_callback(RvpInstance* instance, int (*keepAlive)(void*));

/* The English text of a code; empty for an unknown one. The text lives as long as the process. */
int rvp_map_errmsg(RvpInstance* instance, int code, char** text);

} /* extern "C" */
#endif

#endif
