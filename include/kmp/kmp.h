/* The host framework's interface: its records, codes and the functions that a provider imports.
 *
 * A host and a provider exchange these records by pointer, so each layout is part of the binary
 * interface; the assertions below nail every size and offset. Fields named `reserved...` belong to
 * the host: a provider leaves them as they are or, where it fills a whole record, zero.
 *
 * All integers are in the machine's byte order (little-endian on x86-64). Offsets and lengths on a
 * volume or in a file are bytes unless a field says otherwise.
 */
#ifndef KMP_KMP_H
#define KMP_KMP_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define KMP_LAYOUT(record, field, at) static_assert(offsetof(record, field) == (at))
/* Asserts the size of a record. */
#define KMP_SIZE(record, bytes) static_assert(sizeof(record) == (bytes))
extern "C" {
#else
#define KMP_LAYOUT(record, field, at) _Static_assert(offsetof(record, field) == (at), #field)
#define KMP_SIZE(record, bytes) _Static_assert(sizeof(record) == (bytes), #record)
#endif

/* ---- Codes ---------------------------------------------------------------------------------- */

/* Results of the entry points: 0 is success, 1 to 23 are common codes, 2048 to 2074 mapping codes,
 * and 4096 + errno a failed system call. `rvp_map_errmsg` gives the text of each. */
enum kmp_code {
    KMP_OK = 0,
    KMP_EINTERNAL = 1,      /* internal error */
    KMP_ENOTSTARTED = 2,    /* called before the instance was initialised */
    KMP_EINVAL = 3,         /* invalid argument, or an object that is not the provider's */
    KMP_ENOTSUP = 4,        /* the provider does not support the operation */
    KMP_ENOMEM = 5,         /* insufficient memory */
    KMP_ENOTINIT = 7,       /* null or foreign instance handle */
    KMP_ESYSTEM = 11,       /* a system call failed */
    KMP_EINCOMPATIBLE = 12, /* provider incompatible with other installed binaries */
    KMP_EPERM = 13,         /* not permitted by the given permissions */
    KMP_ENOLIBRARY = 14,    /* library not found */
    KMP_ENOFUNCTION = 15,   /* function not found in the library */
    KMP_ENOTALLOCATED = 2058,
    KMP_ERESERVEDINODE = 2072,
    KMP_ERRNO_BASE = 4096
};

/* Severity of a log line or a reported error. 5 to 7 are the trace levels. */
typedef enum kmp_eseverity {
    KMP_SEVERITY_INFO = 1,
    KMP_SEVERITY_WARNING = 2,
    KMP_SEVERITY_ERROR = 3,
    KMP_SEVERITY_DEBUG = 4,
    KMP_SEVERITY_TRACE5 = 5,
    KMP_SEVERITY_TRACE6 = 6,
    KMP_SEVERITY_TRACE7 = 7,
    KMP_SEVERITY_WIDTH = 0x7FFFFFFF /* makes the type as wide as an int */
} kmp_eseverity;

/* A provider's answer to a claim. */
typedef enum km_claim {
    KM_CLAIM_NONE = 0,     /* the provider cannot serve the volume */
    KM_CLAIM_PRIMARY = 1,  /* the id names a volume that the provider serves */
    KM_CLAIM_SECONDARY = 2 /* the provider recognised a file system on the volume */
} km_claim;

/* Flags of the two open calls: at least one of the first two must be given. */
enum kmp_open_flag {
    KMP_OPEN_READ = 0x1, /* needed by every operation that reads attributes or opens files */
    KMP_OPEN_WRITE = 0x2,
    KMP_OPEN_SPECIAL = 0x1000 /* answered in the open-flags word: a volume, or a file without data
                                 runs of its own kind (device, FIFO, socket, symbolic link) */
};

/* Host file types, in `kmp_file.type`. */
enum kmp_file_type {
    KMP_FTYPE_REGULAR = 1,
    KMP_FTYPE_DIRECTORY = 2,
    KMP_FTYPE_BLOCK_DEVICE = 3,
    KMP_FTYPE_CHARACTER_DEVICE = 4,
    KMP_FTYPE_SYMBOLIC_LINK = 5,
    KMP_FTYPE_FIFO_OR_SOCKET = 6,
    KMP_FTYPE_UNKNOWN = 10
};

/* Kinds of a property record. */
enum kmp_prop_kind { KMP_PROP_FILE = 6, KMP_PROP_FILE_SYSTEM = 7 };

/* Kinds of an object id. */
enum km_objid_kind { KM_OBJID_PROVIDER = 2, KM_OBJID_FSO = 3 };

/* Commands of `rvp_map_objctl` and what `argument` points to. */
enum kmp_objctl {
    KMP_OCGETEXTFS = 1,            /* file system: not supported */
    KMP_OCSETEXTFS = 2,            /* file system: not supported */
    KMP_OCGETEXTFILE = 3,          /* file: kmp_extfile to fill */
    KMP_OCVOLUMENAME = 1000,       /* file system: char* set to the volume name */
    KMP_OCVOLUMEUUID = 1001,       /* file system: pointer set to the 16 UUID bytes */
    KMP_OCTRAVERSETYPE = 1002,     /* file system: uint32_t set to 1 */
    KMP_OCROOTINDEX = 1003,        /* file system: uint64_t set to the root's file index */
    KMP_OCTRAVERSEATTRIBUTE = 1004 /* file system: uint32_t set to 1 */
};

/* ---- Records -------------------------------------------------------------------------------- */

/* Object id, made and counted by the host. */
typedef struct km_objid {
    char* name;            /*  0: NUL-terminated object name */
    int32_t length;        /*  8: bytes of the name, its NUL included */
    uint8_t flags;         /* 12: bit 0: a provider object must not free this id */
    uint8_t reserved13[3]; /* 13 */
    int32_t kind;          /* 16: km_objid_kind */
    int32_t reserved20;    /* 20 */
} km_objid_record;
KMP_LAYOUT(struct km_objid, name, 0);
KMP_LAYOUT(struct km_objid, length, 8);
KMP_LAYOUT(struct km_objid, flags, 12);
KMP_LAYOUT(struct km_objid, kind, 16);
KMP_SIZE(struct km_objid, 24);

/* Object record, embedded in every provider object; the host holds a pointer to it. */
typedef struct kmp_obj {
    uint8_t reserved0[56];  /*   0 */
    void* record;           /*  56: a lower object's record, copied by objects that wrap it */
    struct km_objid* id;    /*  64: the object's id */
    uint8_t reserved72[8];  /*  72 */
    char* name;             /*  80: the id's name */
    char* displayName;      /*  88: the id's name again */
    uint8_t reserved96[32]; /*  96 */
    void* provider;         /* 128: the provider object that owns this record; null once closed */
} kmp_obj;
KMP_LAYOUT(kmp_obj, record, 56);
KMP_LAYOUT(kmp_obj, id, 64);
KMP_LAYOUT(kmp_obj, name, 80);
KMP_LAYOUT(kmp_obj, displayName, 88);
KMP_LAYOUT(kmp_obj, provider, 128);
KMP_SIZE(kmp_obj, 136);

/* Time value. */
typedef struct km_time {
    uint64_t seconds;  /*  0: seconds since 1 January 1900 (Unix time + 2208988800), modulo 2^64 */
    uint32_t fraction; /*  8: low 30 bits: nanoseconds; high 2 bits: multiples of 2^32 seconds to
                              add to `seconds` */
    uint32_t reserved12; /* 12 */
} km_time;
KMP_LAYOUT(km_time, seconds, 0);
KMP_LAYOUT(km_time, fraction, 8);
KMP_SIZE(km_time, 16);

/* File system statistics. The names say what the reference library puts there; a provider copies
 * the library's fields without interpreting them, except where noted. */
typedef struct kmp_fs {
    uint8_t reserved0[240];      /*   0 */
    uint64_t type;               /* 240: kind of file system (fso_fs_type) */
    uint64_t state;              /* 248: fso_fs_state bits */
    uint64_t preferredBlockSize; /* 256: the block size, but at least 32768, bytes */
    uint64_t blockSize;          /* 264: bytes */
    uint64_t usedBlocks;         /* 272: blocks in use */
    uint64_t blockCount;         /* 280: all blocks */
    uint64_t freeBlocks;         /* 288: free blocks */
    uint64_t freeFiles;          /* 296: free file slots */
    uint64_t fileCount;          /* 304: file slots, rounded up to a multiple of 64 */
    uint64_t volumeId;           /* 312: first eight bytes of the UUID */
    char nameSpace[16];          /* 320: "dorado" */
    uint32_t maxNameLength;      /* 336: longest file name, bytes */
    uint32_t reserved340;        /* 340 */
} kmp_fs;
KMP_LAYOUT(kmp_fs, type, 240);
KMP_LAYOUT(kmp_fs, state, 248);
KMP_LAYOUT(kmp_fs, preferredBlockSize, 256);
KMP_LAYOUT(kmp_fs, blockSize, 264);
KMP_LAYOUT(kmp_fs, usedBlocks, 272);
KMP_LAYOUT(kmp_fs, blockCount, 280);
KMP_LAYOUT(kmp_fs, freeBlocks, 288);
KMP_LAYOUT(kmp_fs, freeFiles, 296);
KMP_LAYOUT(kmp_fs, fileCount, 304);
KMP_LAYOUT(kmp_fs, volumeId, 312);
KMP_LAYOUT(kmp_fs, nameSpace, 320);
KMP_LAYOUT(kmp_fs, maxNameLength, 336);
KMP_SIZE(kmp_fs, 344);

/* File statistics. */
typedef struct kmp_file {
    uint8_t reserved0[64];   /*   0 */
    uint64_t mode;           /*  64: Linux file mode: type and permissions */
    uint64_t linkCount;      /*  72: hard links */
    uint32_t type;           /*  80: kmp_file_type */
    uint8_t reserved84[20];  /*  84 */
    uint64_t owner;          /* 104: user id in the low, group id in the high 32 bits */
    uint64_t size;           /* 112: bytes; 0 for a directory */
    uint8_t reserved120[8];  /* 120 */
    uint64_t blocks;         /* 128: allocated space in units of 512 bytes */
    uint64_t device;         /* 136: device files: major << 32 | minor; else 0 */
    km_time accessTime;      /* 144 */
    km_time modifyTime;      /* 160 */
    km_time changeTime;      /* 176 */
    km_time createTime;      /* 192: 2208988800 and a zero fraction where none is kept */
    uint64_t index;          /* 208: the file's index in its file system */
    uint8_t reserved216[16]; /* 216 */
} kmp_file;
KMP_LAYOUT(kmp_file, mode, 64);
KMP_LAYOUT(kmp_file, linkCount, 72);
KMP_LAYOUT(kmp_file, type, 80);
KMP_LAYOUT(kmp_file, owner, 104);
KMP_LAYOUT(kmp_file, size, 112);
KMP_LAYOUT(kmp_file, blocks, 128);
KMP_LAYOUT(kmp_file, device, 136);
KMP_LAYOUT(kmp_file, accessTime, 144);
KMP_LAYOUT(kmp_file, modifyTime, 160);
KMP_LAYOUT(kmp_file, changeTime, 176);
KMP_LAYOUT(kmp_file, createTime, 192);
KMP_LAYOUT(kmp_file, index, 208);
KMP_SIZE(kmp_file, 232);

/* One run of volume bytes that holds file bytes. Runs come in file order without gaps: the file
 * offset of a run is the asked offset plus the lengths of the runs before it, as the library gave
 * them. With a sector size of 512 these are the lengths here, as blocks are whole sectors, but for
 * inline runs, whose exact length is in the flags (fso_extent_flag); with a sector size above the
 * block size ask run by run. */
typedef struct kmp_extent {
    uint8_t reserved0[16];   /*  0 */
    struct km_objid* volume; /* 16: id of the volume that holds the data */
    uint64_t offset;         /* 24: byte offset on the volume */
    uint64_t length;         /* 32: bytes, rounded up to the logical sector size */
    uint32_t flags;          /* 40: the library's extent flags (fso_extent_flag) */
    uint8_t reserved44[20];  /* 44 */
} kmp_extent;
KMP_LAYOUT(kmp_extent, volume, 16);
KMP_LAYOUT(kmp_extent, offset, 24);
KMP_LAYOUT(kmp_extent, length, 32);
KMP_LAYOUT(kmp_extent, flags, 40);
KMP_SIZE(kmp_extent, 64);

/* Property of an object. The provider keeps it until the object is closed. */
typedef struct kmp_obj_prop {
    uint8_t reserved0[64];   /*   0 */
    uint32_t kind;           /*  64: kmp_prop_kind */
    uint8_t reserved68[20];  /*  68 */
    uint64_t blockSize;      /*  88: file system: bytes */
    uint64_t size;           /*  96: bytes: of the file, or block size times block count */
    uint64_t value104;       /* 104: file system: 1 */
    uint64_t value112;       /* 112: file system: 1 */
    uint8_t reserved120[16]; /* 120 */
} kmp_obj_prop;
KMP_LAYOUT(kmp_obj_prop, kind, 64);
KMP_LAYOUT(kmp_obj_prop, blockSize, 88);
KMP_LAYOUT(kmp_obj_prop, size, 96);
KMP_LAYOUT(kmp_obj_prop, value104, 104);
KMP_LAYOUT(kmp_obj_prop, value112, 112);
KMP_SIZE(kmp_obj_prop, 136);

/* Link property, compared and copied whole. */
typedef struct kmp_obj_link_prop {
    uint64_t reserved0[16]; /* 0 */
} kmp_obj_link_prop;
KMP_SIZE(kmp_obj_link_prop, 128);

/* I/O request. `rvp_map_readdir` fills the buffer with the library's directory entries. */
typedef struct kmp_io_req {
    uint8_t reserved0[16]; /*  0 */
    uint64_t buffer;       /* 16: address of the buffer */
    uint64_t bufferSize;   /* 24: bytes */
    uint64_t position;     /* 32: where to go on; 0 at the beginning */
    uint64_t resultCount;  /* 40: bytes written into the buffer */
    uint8_t reserved48[8]; /* 48 */
    uint32_t error;        /* 56: host code when the call failed */
    uint32_t reserved60;   /* 60 */
} kmp_io_req;
KMP_LAYOUT(kmp_io_req, buffer, 16);
KMP_LAYOUT(kmp_io_req, bufferSize, 24);
KMP_LAYOUT(kmp_io_req, position, 32);
KMP_LAYOUT(kmp_io_req, resultCount, 40);
KMP_LAYOUT(kmp_io_req, error, 56);
KMP_SIZE(kmp_io_req, 64);

/* One counted piece of extended file metadata; its bytes stay valid until the file is closed. */
typedef struct kmp_extfile_piece {
    uint64_t address; /*  0: address of the bytes; 0 for none */
    uint64_t length;  /*  8: bytes */
    uint64_t count;   /* 16: always 1 */
} kmp_extfile_piece;
KMP_SIZE(kmp_extfile_piece, 24);

/* Extended metadata of a file, filled by `rvp_map_objctl` with KMP_OCGETEXTFILE. */
typedef struct kmp_extfile {
    uint8_t reserved0[8];     /*   0 */
    kmp_extfile_piece first;  /*   8: reference library: the inode as it lies on the volume */
    uint8_t reserved32[48];   /*  32 */
    kmp_extfile_piece text;   /*  80: provider's text of three octal numbers */
    uint8_t reserved104[72];  /* 104 */
    kmp_extfile_piece second; /* 176: reference library: the extended-attribute block */
    kmp_extfile_piece third;  /* 200: reference library: the target of a symbolic link */
} kmp_extfile;
KMP_LAYOUT(kmp_extfile, first, 8);
KMP_LAYOUT(kmp_extfile, text, 80);
KMP_LAYOUT(kmp_extfile, second, 176);
KMP_LAYOUT(kmp_extfile, third, 200);
KMP_SIZE(kmp_extfile, 224);

/* Object statistics; this provider keeps none and answers all zero. */
typedef struct kmp_stats {
    uint64_t values[180]; /* 0 */
} kmp_stats;
KMP_SIZE(kmp_stats, 1440);

/* Records that the provider passes through without looking inside. */
typedef struct kmp_configid kmp_configid;
typedef struct kmp_name kmp_name;                     /* names of an object */
typedef struct kmp_mapdomain_node kmp_mapdomain_node; /* place in the host's map */

/* The host's error handler. The texts are good during the call; `localized` may be null. */
typedef struct kmp_ehandler {
    /* Takes one error; severity is a kmp_eseverity. */
    void (*handler)(struct kmp_ehandler* self, const char* english, const char* localized,
                    int severity);
} kmp_ehandler;

/* ---- Imported from the host ------------------------------------------------------------------ */

extern const char* km_root;     /* root directory; libfso.so lies in lib/map/rvp/ below it */
extern const char* km_log_root; /* directory for dumps and log files */
extern int km_debug_level;      /* 0: no logging; bits 28, 29, 30: trace levels 5, 6, 7 */

/* The record and the function that makes it share a name, on purpose. */
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
#endif
/* Makes or finds an object id; `length` counts the terminating NUL. Null when memory is short. */
struct km_objid* km_objid(const char* name, int length, int kind);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
/* Gives an id back; null is accepted. */
void km_free_objid(struct km_objid* id);
/* Takes one composed log line; `indent` is the depth of trace scopes. */
void km_log_provider_msg(const char* text, int zero, int indent, int severity);
/* Takes a report for the user; kind 10, 9 or 8. */
void km_report_provider_msg(const char* text, int kind);

/* Bounded string functions, always terminating; they return the length that was asked for. */
size_t V_strlcpy(char* to, const char* from, size_t size);
/* Appends, to at most `size` bytes in all. */
size_t V_strlcat(char* to, const char* from, size_t size);
#if defined(__GNUC__)
__attribute__((format(printf, 3, 4)))
#endif
/* Formats as printf does. */
int V_snprintf(char* to, size_t size, const char* format, ...);
#if defined(__GNUC__)
__attribute__((format(printf, 3, 0)))
#endif
/* The same with the arguments of another function. */
int V_vsnprintf(char* to, size_t size, const char* format, va_list arguments);

/* 16 bytes that are unique in the world. */
typedef struct RGUID {
    uint8_t bytes[16]; /* in the order of their text */
} RGUID;
/* Fills a new GUID; 0 is success. */
int RGUIDCreate(struct RGUID* guid);
/* Writes 32 hexadecimal digits and a NUL into `text` of `size` bytes; 0 is success. */
int RGUIDAsString(const struct RGUID* guid, char* text, int size, int flags);

#ifdef __cplusplus
}
#endif

#undef KMP_LAYOUT
#undef KMP_SIZE

#endif
