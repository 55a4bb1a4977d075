/* The contract between the provider and a file-system-object library, `libfso.so`.
 *
 * The provider loads the library from lib/map/rvp/ under the host's root directory, calls `libInit`
 * once in the life of the process, and asks `openFileSystemObject` for one object a volume. It
 * reaches the volume only through the host's read callback. All calls for one object come from one
 * thread at a time.
 *
 * Every operation but `recognise` returns a status: 0, or one of `fso_status`. Offsets and lengths
 * are bytes. A library fills in what it knows and leaves the rest of a record zero.
 */
#ifndef FSO_IFILESYSTEMOBJECTV1_H
#define FSO_IFILESYSTEMOBJECTV1_H

#include <cstddef>
#include <cstdint>

/* ---- Status and log levels ------------------------------------------------------------------- */

/* What an operation returns, and the host code that the provider makes of it. Any other value
 * becomes 1, internal error. */
enum fso_status : uint32_t {
    FSO_OK = 0,
    FSO_INVALID = 1,         /* 3: invalid argument */
    FSO_IO = 2,              /* 11: the volume could not be read */
    FSO_NOT_FOUND = 3,       /* 11: no such file index */
    FSO_UNSUPPORTED = 4,     /* 4: not supported */
    FSO_NO_MEMORY = 5,       /* 5: insufficient memory */
    FSO_NOT_INITIALISED = 6, /* 7: the library is not initialised */
    FSO_INCOMPATIBLE = 7,    /* 12: incompatible with other binaries */
    FSO_NOT_PERMITTED = 8,   /* 13: not permitted */
    FSO_NO_LIBRARY = 9,      /* 14: a library is missing */
    FSO_NO_FUNCTION = 10,    /* 15: a function is missing */
    FSO_DAMAGED = 11         /* 11: the volume's metadata contradict themselves */
};

/* Levels of the log callback: the provider's own log levels. */
enum fs_log_level_t : int {
    FS_LOG_ERROR = 0,
    FS_LOG_WARNING = 2,
    FS_LOG_INFO = 3,
    FS_LOG_DEBUG = 4,
    FS_LOG_TRACE = 5
};

/* ---- Callbacks ------------------------------------------------------------------------------- */

/* Fills `length` bytes from byte `offset` of the volume; false on any failure. */
using fso_read_callback = bool (*)(void* context, unsigned long offset, unsigned long length,
                                   char* buffer);
/* Takes one line of text that ends in a line feed. The text is used as a printf format without
 * arguments: write "%%" for a percent sign. Returns 1. */
using fso_log_callback = int (*)(fs_log_level_t level, const char* text);
/* To be called now and then during long work, with the read callback's context. The result has no
 * meaning yet. May be null. */
using fso_keep_alive_callback = int (*)(void* context);

/* ---- Records --------------------------------------------------------------------------------- */

/* What the library says of itself, a chain: one record a file system reader, say. */
struct fso_info {
    const char* name;     /* of the reader */
    const char* version;  /* of the library */
    const char* build;    /* what it is built on */
    const fso_info* next; /* null at the end */
};
static_assert(sizeof(fso_info) == 32);

/* Kinds of file system, in fso_fs_record.type. */
enum fso_fs_type : uint32_t {
    FSO_FS_UNKNOWN = 0,
    FSO_FS_EXT2 = 2,
    FSO_FS_EXT3 = 3,
    FSO_FS_EXT4 = 4
};

/* Bits of fso_fs_record.state. */
enum fso_fs_state : uint32_t {
    FSO_FS_NEEDS_RECOVERY = 0x1, /* the journal holds changes that are not in place */
    FSO_FS_HAS_ERRORS = 0x2      /* the file system is marked as damaged */
};

/* A file system. */
struct fso_fs_record {
    uint32_t type;          /*   0: fso_fs_type */
    uint32_t state;         /*   4: fso_fs_state bits */
    uint64_t blockSize;     /*   8: bytes */
    uint64_t usedBlocks;    /*  16 */
    uint64_t blockCount;    /*  24 */
    uint64_t freeBlocks;    /*  32 */
    uint64_t freeFiles;     /*  40: free file slots */
    uint64_t reserved48;    /*  48 */
    uint64_t fileCount;     /*  56: file slots; the provider refuses a volume where it is 0 */
    uint8_t uuid[16];       /*  64 */
    char volumeName[32];    /*  80: NUL-terminated */
    uint32_t maxNameLength; /* 112: longest file name, bytes */
    uint32_t reserved116;   /* 116 */
};
static_assert(offsetof(fso_fs_record, type) == 0 && offsetof(fso_fs_record, state) == 4);
static_assert(offsetof(fso_fs_record, blockSize) == 8 && offsetof(fso_fs_record, usedBlocks) == 16);
static_assert(offsetof(fso_fs_record, blockCount) == 24);
static_assert(offsetof(fso_fs_record, freeBlocks) == 32);
static_assert(offsetof(fso_fs_record, freeFiles) == 40);
static_assert(offsetof(fso_fs_record, fileCount) == 56 && offsetof(fso_fs_record, uuid) == 64);
static_assert(offsetof(fso_fs_record, volumeName) == 80);
static_assert(offsetof(fso_fs_record, maxNameLength) == 112);
static_assert(sizeof(fso_fs_record) == 120);

/* One time of a file. */
struct fso_time {
    int32_t seconds;   /* since 1 January 1970 */
    uint32_t fraction; /* low 30 bits: nanoseconds; high 2 bits: how many times 2^32 seconds are to
                          be added to `seconds` */
};
static_assert(sizeof(fso_time) == 8);

/* A file's attributes. */
struct fso_file_record {
    uint64_t mode;       /*  0: Linux file mode: type and permissions */
    uint64_t linkCount;  /*  8 */
    uint64_t owner;      /* 16: user id in the low, group id in the high 32 bits */
    uint64_t size;       /* 24: bytes */
    uint64_t blocks;     /* 32: allocated space in units of 512 bytes */
    uint64_t device;     /* 40: device files: major << 32 | minor; else 0 */
    fso_time accessTime; /* 48 */
    fso_time modifyTime; /* 56 */
    fso_time changeTime; /* 64 */
    fso_time createTime; /* 72: both words zero where none is kept */
    uint64_t index;      /* 80: the file index itself */
};
static_assert(offsetof(fso_file_record, mode) == 0 && offsetof(fso_file_record, linkCount) == 8);
static_assert(offsetof(fso_file_record, owner) == 16 && offsetof(fso_file_record, size) == 24);
static_assert(offsetof(fso_file_record, blocks) == 32 && offsetof(fso_file_record, device) == 40);
static_assert(offsetof(fso_file_record, accessTime) == 48);
static_assert(offsetof(fso_file_record, modifyTime) == 56);
static_assert(offsetof(fso_file_record, changeTime) == 64);
static_assert(offsetof(fso_file_record, createTime) == 72);
static_assert(offsetof(fso_file_record, index) == 80);
static_assert(sizeof(fso_file_record) == 88);

/* Bits of fso_extent.flags. */
enum fso_extent_flag : uint32_t {
    FSO_EXTENT_HOLE = 0x01,      /* no volume bytes: reads as zeros; offset is 0 */
    FSO_EXTENT_UNWRITTEN = 0x02, /* allocated but never written: reads as zeros */
    FSO_EXTENT_INLINE = 0x04,    /* exact bytes inside a metadata structure */
    FSO_EXTENT_ENCODED = 0x08,   /* the bytes are not the file's own: encrypted or compressed */
    FSO_EXTENT_LAST = 0x10       /* the file's last record */
};
/* The provider rounds lengths up to the sector size, so an inline record repeats its exact length
 * in the flags' high 16 bits. */
constexpr unsigned FSO_EXTENT_INLINE_LENGTH_SHIFT = 16;

/* One run. Records follow each other without gaps in file order from the asked offset on (a first
 * record begins there even in the middle of a run), so holes are records too. Runs other than
 * inline ones, and a hole behind those, are whole file-system blocks: the last may reach past the
 * file's size, and preallocated space past the size is listed. A file without any run answers at
 * offset 0 with one record of length 0 flagged HOLE and LAST. */
struct fso_extent {
    uint64_t offset;  /*  0: on the volume, bytes */
    uint64_t length;  /*  8: bytes */
    uint32_t flags;   /* 16: fso_extent_flag bits */
    uint32_t padding; /* 20 */
};
static_assert(offsetof(fso_extent, offset) == 0 && offsetof(fso_extent, length) == 8);
static_assert(offsetof(fso_extent, flags) == 16);
static_assert(sizeof(fso_extent) == 24);

/* What readDir is asked for and answers. */
struct fso_dir_request {
    uint64_t buffer;      /*  0: address of the buffer, aligned to 8 */
    uint64_t bufferSize;  /*  8: bytes */
    uint64_t position;    /* 16: 0, or the `next` of the last entry that was read */
    uint64_t resultCount; /* 24: bytes written */
};
static_assert(offsetof(fso_dir_request, buffer) == 0);
static_assert(offsetof(fso_dir_request, bufferSize) == 8);
static_assert(offsetof(fso_dir_request, position) == 16);
static_assert(offsetof(fso_dir_request, resultCount) == 24);
static_assert(sizeof(fso_dir_request) == 32);

/* One directory entry in the buffer; the next begins `recordLength` bytes further on. The entries
 * for the directory itself and its parent are not listed. */
struct fso_dir_entry {
    uint64_t index;        /*  0: file index */
    uint64_t next;         /*  8: position to ask for to go on behind this entry; never 0 */
    uint32_t recordLength; /* 16: bytes from this entry to the next, a multiple of 8 */
    uint32_t nameLength;   /* 20: bytes, without the NUL that follows the name */
    uint32_t type;         /* 24: file type bits of the mode (0xF000), 0 where it is not known */
    uint32_t reserved28;   /* 28 */
    /* 32: the name, any bytes but NUL, and a NUL */
};
/* Where the name begins in an entry, bytes. */
constexpr std::size_t FSO_DIR_ENTRY_NAME_OFFSET = 32;
static_assert(offsetof(fso_dir_entry, next) == 8 && offsetof(fso_dir_entry, recordLength) == 16);
static_assert(offsetof(fso_dir_entry, nameLength) == 20 && offsetof(fso_dir_entry, type) == 24);
static_assert(sizeof(fso_dir_entry) == FSO_DIR_ENTRY_NAME_OFFSET);

/* Raw metadata of a file as three runs of memory. They stay valid until the file is closed. */
struct fso_metadata_piece {
    uint64_t address; /* 0 where there is none */
    uint64_t length;  /* bytes */
};
/* The three pieces. */
struct fso_metadata {
    fso_metadata_piece inode;          /*  0: the inode as it lies on the volume */
    fso_metadata_piece attributeBlock; /* 16: the extended-attribute block as it lies there */
    fso_metadata_piece linkTarget;     /* 32: the target of a symbolic link, without a NUL */
};
static_assert(offsetof(fso_metadata, attributeBlock) == 16);
static_assert(offsetof(fso_metadata, linkTarget) == 32);
static_assert(sizeof(fso_metadata) == 48);

/* A file index that never names a file. */
constexpr uint64_t FSO_NO_INDEX = ~uint64_t{0};

/* ---- The object ------------------------------------------------------------------------------ */

/* One volume. The order of the operations is the order of their slots; there is no virtual
 * destructor, objects end in `closeFileSystemObject`. */
class IFileSystemObjectV1 {
  public:
    /* 0: true when the volume holds a file system that this object can read. Called first. */
    virtual bool recognise() = 0;
    /* 1: the root directory's index. */
    virtual uint32_t rootIndex(uint64_t* index) = 0;
    /* 2 */
    virtual uint32_t statFs(fso_fs_record* record) = 0;
    /* 3: attributes of a file. `flags` is zero on entry; a library may set bits of the host's
     * open flags. Every index that was opened, or failed to open, is closed once. */
    virtual uint32_t openFile(uint64_t index, fso_file_record* record, uint32_t* flags) = 0;
    /* 4: as many whole entries as fit, from the request's position on; no entry and status 0 mean
     * the end. A listing that had to leave something out ends with FSO_DAMAGED or FSO_IO instead.
     * A buffer too small for one entry is FSO_INVALID. */
    virtual uint32_t readDir(uint64_t index, fso_dir_request* request, uint32_t* entryCount) = 0;
    /* 5: up to `capacity` records from byte `offset` of the file. An offset at or past the end of
     * the last run gives no record and FSO_INVALID. After damage the records before it are
     * delivered; asking behind them gives the status. `*count` is written in every case. */
    virtual uint32_t getExtents(uint64_t index, uint64_t offset, fso_extent* extents,
                                uint32_t capacity, uint32_t* count) = 0;
    /* 6: pieces that cannot be trusted are left out; any that cannot be read is FSO_IO. */
    virtual uint32_t getMetadata(uint64_t index, fso_metadata* metadata) = 0;
    /* 7 */
    virtual uint32_t closeFile(uint64_t index) = 0;

  protected:
    ~IFileSystemObjectV1() = default;
};

/* ---- Entry points of the library, with plain names ------------------------------------------- */

extern "C" {
/* Prepares the library; `directory` is where it lies, with a trailing slash. Null means failure. */
const fso_info* libInit(const char* directory);
/* Makes an object for the volume behind the read callback. Writes `*object` only on success. */
uint32_t openFileSystemObject(IFileSystemObjectV1** object, uint32_t sectorSize,
                              fso_read_callback read, void* context, fso_log_callback log,
                              fso_keep_alive_callback keepAlive);
/* Releases an object and sets `*object` to null. */
uint32_t closeFileSystemObject(IFileSystemObjectV1** object);
/* Ends the library. `head` is what libInit returned. */
void libFini(const fso_info* head);
}

#endif
